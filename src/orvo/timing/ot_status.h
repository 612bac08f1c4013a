/* Status values of the instrument's driver library. Compiles as C and as C++. */
#ifndef ORVO_TIMING_OT_STATUS_H_
#define ORVO_TIMING_OT_STATUS_H_

#include <stdint.h>

/* 0 is success, every other value but a read's time-out a failure; values without a name come from
 * the library alone. Plain values: any thread may use them. */
typedef int32_t ot_status;

enum {
  OT_OK = 0,
  OT_ERR_ARGUMENT = -1,
  OT_ERR_IO = -2,
  OT_ERR_TIMEOUT = -3, /* a read met no data within its time-out */
  OT_ERR_FORMAT = -4,
  OT_ERR_NOT_FOUND = -5,
  OT_ERR_NOT_OPEN = -6
};

#endif /* ORVO_TIMING_OT_STATUS_H_ */
