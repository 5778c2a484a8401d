/* SPDX-License-Identifier: Apache-2.0 */
/* Marks the entry points and globals that the library exports; everything
 * else is built hidden. */
#ifndef SWMGR_COMMON_API_H
#define SWMGR_COMMON_API_H

#define SWMGR_API __attribute__((visibility("default")))

#ifdef __cplusplus
#define SWMGR_EXTERN_C_BEGIN extern "C" {
#define SWMGR_EXTERN_C_END }
#else
#define SWMGR_EXTERN_C_BEGIN
#define SWMGR_EXTERN_C_END
#endif

#endif
