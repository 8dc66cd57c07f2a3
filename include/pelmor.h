/*
 * pelmor.h - client interface of libpelmor.so.2, the user-space driver for the
 * ICM-42688 six-axis IMU (SPI on /dev/spidev2.0, data-ready on GPIO395).
 *
 * Usage in brief:
 *
 *     pelmor_config cfg = {0};
 *     cfg.struct_size = sizeof cfg;      // 48
 *     cfg.sample_rate_hz = 30;           // 25 or 30
 *     cfg.mode = 1;                      // the only mode
 *     pelmor_handle h;
 *     if (pelmor_create(&cfg, &h) == PELMOR_OK) {
 *         pelmor_set_callback(h, on_sample, my_context);
 *         if (pelmor_start(h) == PELMOR_OK) {
 *             ...                        // samples arrive on the worker thread
 *             pelmor_stop(h);
 *         }
 *         pelmor_destroy(h);
 *     }
 *
 * Every time in a sample is in nanoseconds on CLOCK_MONOTONIC_RAW. No function
 * lets an exception escape except where stated; all return plain status codes.
 * All records are fixed-layout, little-endian, and begin with their own size.
 */
#ifndef PELMOR_H
#define PELMOR_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* ---- Status codes ------------------------------------------------------ */

#define PELMOR_OK 0                     /* success */
#define PELMOR_ERR_INVALID_ARGUMENT (-1) /* a bad argument or configuration */
#define PELMOR_ERR_INVALID_STATE (-2)    /* not legal in the current state */
#define PELMOR_ERR_IO (-3)               /* device, timing or system failure */
#define PELMOR_ERR_INTERNAL (-4)         /* allocation failure or unknown error */

/* ---- Records ----------------------------------------------------------- */

/* Opt-in features for pelmor_config.flags; with flags 0 the driver behaves
 * exactly as described everywhere else in this header.
 *
 * PELMOR_FLAG_PAIRING_CHECK: over the first accepted samples of a run the
 * driver learns the offset between each sample's INT1 stamp and its mapped
 * time; once learned, a departure of that offset by a large part of a sensor
 * period that persists over several samples is taken as a pairing slip (an
 * INT1 edge lost or added without a sequence gap) and answered with a resync,
 * logged with its own reason and counted among the boundary resyncs.
 *
 * PELMOR_FLAG_BRACKET_FIT: the sensor-clock map takes the middle of the lines
 * that pass through every anchor's clock bracket instead of a least-squares
 * line through the brackets' midpoints, so that a bracket stretched on one side
 * no longer tilts it, and while the map is young it takes a fresh anchor as
 * soon as a sample lies an eighth of the map's span past the newest one (at
 * most every 40 ms). Each bracket is narrowed to where the kernel's timing of
 * the snapshot message lets the latch be. A delivered sample's mapped time is
 * the middle of what the lines through every bracket and under the recent INT1
 * stamps allow at its tick, and its stated uncertainty is half that range plus
 * one tick: still a bound of the true error, a much tighter one. */
#define PELMOR_FLAG_PAIRING_CHECK 0x1u
#define PELMOR_FLAG_BRACKET_FIT 0x2u

/* Configuration, filled by the caller and read by pelmor_create(). */
typedef struct pelmor_config {
    uint32_t struct_size;    /* must be sizeof(pelmor_config), 48 */
    uint32_t sample_rate_hz; /* delivered sample rate: 25 or 30 */
    uint32_t mode;           /* must be 1 */
    uint32_t flags;          /* 0, or PELMOR_FLAG_* bits (opt-in features) */
    uint32_t strict_timing;  /* 0: a timing fault drops the sample and is counted;
                                1: a timing fault stops the driver (see
                                pelmor_is_running) */
    uint32_t reserved[7];    /* must be 0 */
} pelmor_config;

/* One delivered sample; valid only for the duration of the callback. */
typedef struct pelmor_sample {
    uint32_t struct_size;            /* 120 */
    uint32_t tmst_wrap_count;        /* wraps of the sensor's 20-bit timestamp
                                        in this run, saturated */
    uint64_t event_timestamp_raw_ns; /* INT1 edge paired with this sample */
    double temperature_c;            /* degrees Celsius */
    double accel_mps2[3];            /* x, y, z in m/s^2 (+-16 g range) */
    double gyro_radps[3];            /* x, y, z in rad/s (+-2000 dps range) */
    int16_t raw_words[7];            /* temperature (sign-extended byte),
                                        accel x, y, z, gyro x, y, z counts */
    uint16_t fifo_timestamp_low16;   /* sensor timestamp field of the packet */
    uint64_t mapped_timestamp_raw_ns; /* sensor timestamp mapped onto the host
                                         clock; strictly increasing in a run */
    uint64_t sample_index;           /* 0 for the first sample of a run */
    uint32_t phase_uncertainty_us;   /* uncertainty of mapped_timestamp_raw_ns,
                                        whole microseconds, rounded up (<= 200) */
    uint32_t boundary_resyncs;       /* interrupt sequence-gap resyncs so far (and
                                        pairing slips, with PELMOR_FLAG_PAIRING_CHECK) */
    uint32_t batch_failures;         /* FIFO batch reads that failed so far */
    uint32_t total_drops;            /* samples dropped so far */
} pelmor_sample;

/* Counters of the last finished run, see pelmor_get_runtime_health(). */
typedef struct pelmor_runtime_health {
    uint32_t struct_size;                /* set to 48 by the caller */
    uint32_t epoch;                      /* run number (1, 2, ...; never 0) */
    uint64_t samples_delivered;          /* samples handed to the callback path */
    uint32_t boundary_resyncs;           /* interrupt sequence-gap resyncs (and pairing
                                            slips, with PELMOR_FLAG_PAIRING_CHECK) */
    uint32_t batch_failures;             /* FIFO batch reads that failed, in the
                                            loop or for a resync's report */
    uint32_t total_drops;                /* all dropped samples */
    uint32_t uncertainty_over_200_drops; /* drops for uncertainty above 200 us */
    uint32_t max_consecutive_drops;      /* longest run of consecutive drops */
    uint32_t reserved0;                  /* 0 */
    uint64_t reserved1;                  /* 0 */
} pelmor_runtime_health;

/* Opaque driver instance. */
typedef struct pelmor_driver* pelmor_handle;

/* Called on the driver's real-time worker thread once per sample. From it,
 * pelmor_set_callback, pelmor_is_running, pelmor_get_version and
 * pelmor_status_message work as anywhere else; pelmor_start, pelmor_stop and
 * pelmor_get_runtime_health return PELMOR_ERR_INVALID_STATE at once and change
 * nothing; pelmor_destroy does nothing (the handle stays valid). None of them
 * can block on the driver, whatever other threads are doing. If it is C++ and
 * throws, the exception is caught, reported on stderr and the callback is
 * disabled until pelmor_set_callback is called again. */
typedef void (*pelmor_sample_callback)(const pelmor_sample* sample, void* user_data);

/* ---- Functions --------------------------------------------------------- */

/* Validates *config and creates a stopped driver. Opens no device.
 * *out_handle is set to NULL before anything else is checked (when out_handle
 * itself is not NULL) and receives the handle on success.
 * Returns PELMOR_OK, PELMOR_ERR_INVALID_ARGUMENT (NULL pointer, wrong
 * struct_size, rate other than 25/30, mode other than 1, an unknown flags bit,
 * strict_timing above 1, non-zero reserved word) or PELMOR_ERR_INTERNAL. */
int32_t pelmor_create(const pelmor_config* config, pelmor_handle* out_handle);

/* Opens and configures the sensor and the interrupt line, anchors the sensor
 * clock and starts the worker thread. Legal when stopped.
 * Returns PELMOR_OK; PELMOR_ERR_INVALID_ARGUMENT for a NULL handle;
 * PELMOR_ERR_INVALID_STATE when already running or called from the callback;
 * PELMOR_ERR_IO or
 * PELMOR_ERR_INTERNAL when starting failed, after one line
 * "ICM-42688 start failed: <reason>" on stderr. A failed start leaves the
 * handle stopped and reusable. */
int32_t pelmor_start(pelmor_handle handle);

/* Stops the worker, writes the run's summary lines to stderr, records the
 * health snapshot and closes the devices. Legal in every state (idempotent);
 * returns within a pairing or boundary wait (at most 100 ms) plus the closing
 * lines. Returns PELMOR_OK, PELMOR_ERR_INVALID_ARGUMENT for a NULL handle,
 * PELMOR_ERR_INVALID_STATE from the callback (nothing stopped), or
 * PELMOR_ERR_IO. */
int32_t pelmor_stop(pelmor_handle handle);

/* Stops the driver if needed and frees it. NULL is ignored, and so is a call
 * from the callback. Must not run concurrently with another call on the same
 * handle. */
void pelmor_destroy(pelmor_handle handle);

/* Sets (or with callback == NULL clears) the sample callback and its user
 * pointer, as one pair. Legal in every state; takes effect from the next
 * sample. Returns PELMOR_OK, PELMOR_ERR_INVALID_ARGUMENT for a NULL handle,
 * PELMOR_ERR_IO or PELMOR_ERR_INTERNAL. */
int32_t pelmor_set_callback(pelmor_handle handle, pelmor_sample_callback callback, void* user_data);

/* 1 while the worker runs, else 0 (also for NULL). A worker that ended by
 * itself after a fatal error reads 0. */
int32_t pelmor_is_running(pelmor_handle handle);

/* The library version, "1.1.0". Static; do not free. */
const char* pelmor_get_version(void);

/* A static text for a status code: "ok", "invalid argument", "invalid state",
 * "I/O error" or "internal error" (every other value). Do not free. */
const char* pelmor_status_message(int32_t status);

/* Copies the health record of the last finished run into *out. out->struct_size
 * must be 48 on entry. Returns PELMOR_OK; PELMOR_ERR_INVALID_ARGUMENT for NULL
 * pointers or a wrong struct_size (nothing written); PELMOR_ERR_INVALID_STATE
 * while running (so always from the callback), before the first stop that
 * ended a run, after a failed start, or while a dead worker's run has not been
 * closed by pelmor_stop (out untouched). Unlike every other function it has
 * no catch-all: a C++ caller sees a failure to lock the driver's mutex as
 * std::system_error (in C, the process ends). Since version node
 * PELMOR_LUSK_2.1. */
int32_t pelmor_get_runtime_health(pelmor_handle handle, pelmor_runtime_health* out);

/* ---- Layout checks ----------------------------------------------------- */

#if defined(__cplusplus)
#define PELMOR_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
#elif defined(__STDC_VERSION__) && __STDC_VERSION__ >= 201112L
#define PELMOR_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#else /* C99: a negative array size stops the build */
#define PELMOR_STATIC_ASSERT_CAT2(a, b) a##b
#define PELMOR_STATIC_ASSERT_CAT(a, b) PELMOR_STATIC_ASSERT_CAT2(a, b)
#define PELMOR_STATIC_ASSERT(cond, msg) \
    typedef char PELMOR_STATIC_ASSERT_CAT(pelmor_layout_check_, __LINE__)[(cond) ? 1 : -1]
#endif

PELMOR_STATIC_ASSERT(sizeof(pelmor_config) == 48, "pelmor_config is 48 bytes");
PELMOR_STATIC_ASSERT(offsetof(pelmor_config, sample_rate_hz) == 4, "pelmor_config layout");
PELMOR_STATIC_ASSERT(offsetof(pelmor_config, mode) == 8, "pelmor_config layout");
PELMOR_STATIC_ASSERT(offsetof(pelmor_config, flags) == 12, "pelmor_config layout");
PELMOR_STATIC_ASSERT(offsetof(pelmor_config, strict_timing) == 16, "pelmor_config layout");
PELMOR_STATIC_ASSERT(offsetof(pelmor_config, reserved) == 20, "pelmor_config layout");

PELMOR_STATIC_ASSERT(sizeof(pelmor_sample) == 120, "pelmor_sample is 120 bytes");
PELMOR_STATIC_ASSERT(offsetof(pelmor_sample, tmst_wrap_count) == 4, "pelmor_sample layout");
PELMOR_STATIC_ASSERT(offsetof(pelmor_sample, event_timestamp_raw_ns) == 8, "pelmor_sample layout");
PELMOR_STATIC_ASSERT(offsetof(pelmor_sample, temperature_c) == 16, "pelmor_sample layout");
PELMOR_STATIC_ASSERT(offsetof(pelmor_sample, accel_mps2) == 24, "pelmor_sample layout");
PELMOR_STATIC_ASSERT(offsetof(pelmor_sample, gyro_radps) == 48, "pelmor_sample layout");
PELMOR_STATIC_ASSERT(offsetof(pelmor_sample, raw_words) == 72, "pelmor_sample layout");
PELMOR_STATIC_ASSERT(offsetof(pelmor_sample, fifo_timestamp_low16) == 86, "pelmor_sample layout");
PELMOR_STATIC_ASSERT(offsetof(pelmor_sample, mapped_timestamp_raw_ns) == 88, "pelmor_sample layout");
PELMOR_STATIC_ASSERT(offsetof(pelmor_sample, sample_index) == 96, "pelmor_sample layout");
PELMOR_STATIC_ASSERT(offsetof(pelmor_sample, phase_uncertainty_us) == 104, "pelmor_sample layout");
PELMOR_STATIC_ASSERT(offsetof(pelmor_sample, boundary_resyncs) == 108, "pelmor_sample layout");
PELMOR_STATIC_ASSERT(offsetof(pelmor_sample, batch_failures) == 112, "pelmor_sample layout");
PELMOR_STATIC_ASSERT(offsetof(pelmor_sample, total_drops) == 116, "pelmor_sample layout");

PELMOR_STATIC_ASSERT(sizeof(pelmor_runtime_health) == 48, "pelmor_runtime_health is 48 bytes");
PELMOR_STATIC_ASSERT(offsetof(pelmor_runtime_health, epoch) == 4, "pelmor_runtime_health layout");
PELMOR_STATIC_ASSERT(offsetof(pelmor_runtime_health, samples_delivered) == 8, "pelmor_runtime_health layout");
PELMOR_STATIC_ASSERT(offsetof(pelmor_runtime_health, boundary_resyncs) == 16, "pelmor_runtime_health layout");
PELMOR_STATIC_ASSERT(offsetof(pelmor_runtime_health, batch_failures) == 20, "pelmor_runtime_health layout");
PELMOR_STATIC_ASSERT(offsetof(pelmor_runtime_health, total_drops) == 24, "pelmor_runtime_health layout");
PELMOR_STATIC_ASSERT(offsetof(pelmor_runtime_health, uncertainty_over_200_drops) == 28,
                     "pelmor_runtime_health layout");
PELMOR_STATIC_ASSERT(offsetof(pelmor_runtime_health, max_consecutive_drops) == 32, "pelmor_runtime_health layout");
PELMOR_STATIC_ASSERT(offsetof(pelmor_runtime_health, reserved0) == 36, "pelmor_runtime_health layout");
PELMOR_STATIC_ASSERT(offsetof(pelmor_runtime_health, reserved1) == 40, "pelmor_runtime_health layout");

#undef PELMOR_STATIC_ASSERT

#ifdef __cplusplus
}
#endif

#endif /* PELMOR_H */
