/* The public header must be usable from strict C99. */
#include <pelmor.h>

static void on_sample(const pelmor_sample* sample, void* user_data) {
    (void)sample;
    (void)user_data;
}

int pelmor_header_c99_check(void);
int pelmor_header_c99_check(void) {
    pelmor_config config = {0};
    pelmor_handle handle = NULL;
    pelmor_runtime_health health = {0};
    pelmor_sample_callback callback = on_sample;
    config.struct_size = (uint32_t)sizeof config;
    health.struct_size = (uint32_t)sizeof health;
    (void)callback;
    (void)handle;
    return (int)(config.struct_size + health.struct_size);
}
