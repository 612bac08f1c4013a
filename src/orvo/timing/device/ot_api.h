/* C interface of the instrument's driver library, liborvo_timing.so.0. Compiles as C and as C++.
 *
 * Threads: a device and everything reached through it belong to one thread at a time.
 * Ownership: ot_close releases a device, ot_discover_free a discovery list with all its texts.
 * Errors: an operation that can fail returns OT_OK or the status of its failure.
 */
#ifndef ORVO_TIMING_DEVICE_OT_API_H_
#define ORVO_TIMING_DEVICE_OT_API_H_

#include <stddef.h>
#include <stdint.h>

#include "orvo/timing/ot_status.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct ot_device ot_device;
typedef struct ot_discovery_list ot_discovery_list;

/* Each text ends at its first NUL byte or, without one, fills its array. */
typedef struct ot_identity {
  char id_field_1[16];
  char id_field_2[16];
  char id_field_3[16];
  char description[48];
} ot_identity;

/* 32-bit values with the meaning of orvo::timing::Mode, Format and Transport. */
typedef int32_t ot_mode;      /* 0 internal, 1 external */
typedef int32_t ot_format;    /* 0 raw64, 1 delta32, 2 packed_delta */
typedef int32_t ot_transport; /* 0 uart, 1 usb, 2 usb_async */

/* Opens the instrument on `port` (NUL-terminated) at `baud` bits per second. */
ot_status ot_open(ot_device** out, const char* port, int baud);
/* The same at the library's own rate. */
ot_status ot_open_serial(ot_device** out, const char* port);
ot_status ot_close(ot_device* dev);

/* Lists the attached instruments. Port and identity are owned by the list and may be null. */
ot_status ot_discover(ot_discovery_list** out);
uint64_t ot_discover_count(ot_discovery_list* list);
const char* ot_discover_port(ot_discovery_list* list, uint64_t index);
const ot_identity* ot_discover_identity(ot_discovery_list* list, uint64_t index);
void ot_discover_free(ot_discovery_list* list);

ot_status ot_identify(ot_device* dev, ot_identity* out);

/* Detail text of the most recent failure on `dev`; may be null or empty; owned by the library. */
const char* ot_last_error(const ot_device* dev);
/* Fixed text for any status. */
const char* ot_status_string(ot_status status);

/* Programs the calibration source as near as possible to `freq_hz` and stores its divider. */
ot_status ot_set_calibration_freq(ot_device* dev, double freq_hz, uint32_t* divider_out);
/* Sets the packed-delta width (bits) and quantum (picoseconds) and stores the values in force. */
ot_status ot_set_packed_delta_config(ot_device* dev, uint8_t delta_bits, uint16_t quantum_ps,
                                     uint8_t* effective_bits, uint16_t* effective_quantum_ps);
/* One bit a channel. */
ot_status ot_set_stream_channel_mask(ot_device* dev, uint8_t mask);
ot_status ot_set_stream_interface(ot_device* dev, ot_transport transport, ot_format format);

ot_status ot_start_stream_mode(ot_device* dev, ot_mode mode, uint8_t tdl_index);
/* Copies up to `capacity` stream bytes and stores their count in `*got`; waits at most
 * `timeout_ms` milliseconds; OT_ERR_TIMEOUT when nothing arrived. */
ot_status ot_read_stream_bytes(ot_device* dev, uint8_t* buffer, uint64_t capacity, uint64_t* got,
                               int timeout_ms);
/* `stop_flag`: 1 after a completed capture, 0 when a capture is abandoned. */
ot_status ot_stop_stream_mode(ot_device* dev, int stop_flag);

#ifdef __cplusplus
}
#endif

#ifdef __cplusplus
#define OT_STATIC_ASSERT static_assert
#else
#define OT_STATIC_ASSERT _Static_assert
#endif

OT_STATIC_ASSERT(sizeof(ot_identity) == 96, "the library fills 96 bytes");
OT_STATIC_ASSERT(offsetof(ot_identity, id_field_1) == 0, "layout of ot_identity");
OT_STATIC_ASSERT(offsetof(ot_identity, id_field_2) == 16, "layout of ot_identity");
OT_STATIC_ASSERT(offsetof(ot_identity, id_field_3) == 32, "layout of ot_identity");
OT_STATIC_ASSERT(offsetof(ot_identity, description) == 48, "layout of ot_identity");
OT_STATIC_ASSERT(sizeof(ot_status) == 4, "a status is a 32-bit value");
OT_STATIC_ASSERT(sizeof(ot_mode) == 4 && sizeof(ot_format) == 4 && sizeof(ot_transport) == 4,
                 "enumerations cross the interface as 32-bit values");

#undef OT_STATIC_ASSERT

#endif /* ORVO_TIMING_DEVICE_OT_API_H_ */
