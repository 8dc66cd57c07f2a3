/* A minimal client: create a 30 Hz driver, print samples for a few seconds, stop,
 * print the health record. Build: cc stream_samples.c $(pkg-config --cflags --libs pelmor) */
#define _POSIX_C_SOURCE 200809L
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include <pelmor.h>

static void on_sample(const pelmor_sample* s, void* user_data) {
    unsigned long* count = (unsigned long*)user_data;
    ++*count;
    printf("#%" PRIu64 " mapped=%" PRIu64 " ns event=%" PRIu64 " ns +-%" PRIu32
           " us accel=[%.3f %.3f %.3f] m/s2 gyro=[%.4f %.4f %.4f] rad/s temp=%.2f C\n",
           s->sample_index, s->mapped_timestamp_raw_ns, s->event_timestamp_raw_ns, s->phase_uncertainty_us,
           s->accel_mps2[0], s->accel_mps2[1], s->accel_mps2[2], s->gyro_radps[0], s->gyro_radps[1],
           s->gyro_radps[2], s->temperature_c);
    fflush(stdout);
}

int main(int argc, char** argv) {
    unsigned rate = argc > 1 ? (unsigned)strtoul(argv[1], NULL, 10) : 30u;
    unsigned seconds = argc > 2 ? (unsigned)strtoul(argv[2], NULL, 10) : 3u;
    unsigned long count = 0;

    pelmor_config config = {0};
    config.struct_size = sizeof config;
    config.sample_rate_hz = rate;
    config.mode = 1;

    pelmor_handle handle = NULL;
    int32_t status = pelmor_create(&config, &handle);
    if (status != PELMOR_OK) {
        fprintf(stderr, "pelmor_create: %s (%d)\n", pelmor_status_message(status), (int)status);
        return 1;
    }
    pelmor_set_callback(handle, on_sample, &count);

    printf("libpelmor %s, %u Hz for %u s\n", pelmor_get_version(), rate, seconds);
    status = pelmor_start(handle);
    if (status != PELMOR_OK) {
        fprintf(stderr, "pelmor_start: %s (%d); is the sensor present?\n", pelmor_status_message(status),
                (int)status);
        pelmor_destroy(handle);
        return 2;
    }

    struct timespec pause = {(time_t)seconds, 0};
    while (nanosleep(&pause, &pause) != 0) {
    }
    int still_running = pelmor_is_running(handle);
    pelmor_stop(handle);

    pelmor_runtime_health health = {0};
    health.struct_size = sizeof health;
    status = pelmor_get_runtime_health(handle, &health);
    if (status == PELMOR_OK) {
        printf("health: epoch=%" PRIu32 " samples_delivered=%" PRIu64 " boundary_resyncs=%" PRIu32
               " batch_failures=%" PRIu32 " total_drops=%" PRIu32 " uncertainty_over_200_drops=%" PRIu32
               " max_consecutive_drops=%" PRIu32 "\n",
               health.epoch, health.samples_delivered, health.boundary_resyncs, health.batch_failures,
               health.total_drops, health.uncertainty_over_200_drops, health.max_consecutive_drops);
    } else {
        printf("health: %s\n", pelmor_status_message(status));
    }
    printf("callback saw %lu samples%s\n", count, still_running ? "" : " (the worker had stopped by itself)");
    pelmor_destroy(handle);
    return still_running ? 0 : 3;
}
