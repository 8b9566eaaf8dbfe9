/*
 * The relay daemon seen from a C program of the appliance.
 *
 * All four functions work on the daemon's configuration file below the device's root (the
 * environment variable ZARO_ROOT, empty on an appliance). They block only for file access, are
 * meant for one thread, let no C++ exception out, and neither keep nor own what they are passed.
 * A file that is not JSON is moved aside to ".bad". Faults are printed on standard error.
 */
#pragma once

#include <stddef.h>

#include <zarorelayd/export.h>

#ifdef __cplusplus
extern "C" {
#define ZARORELAYD_NOEXCEPT noexcept
#else
#define ZARORELAYD_NOEXCEPT
#endif

/*
 * Gets the id by which the control server knows this device.
 *
 * serviceId  NULL, or the id of a service that must be published as well.
 * buffer     NULL, or where the id goes, also when only the service is missing: cut to `size`
 *            bytes, always terminated, and empty when there is no id.
 * size       size of `buffer` in bytes; 0 leaves it alone.
 *
 * Returns 1 when there is an id (and the service is published), 0 when there is no id or the
 * service is not published, -1 when the configuration can't be read or is not a JSON object.
 */
ZARORELAYD_API int TLIBRelaydGetServerId(const char* serviceId, char* buffer,
                                         size_t size) ZARORELAYD_NOEXCEPT;

/*
 * Checks a server id against the device's hardware address.
 *
 * serverId  the id; NULL checks the one in the configuration file.
 *
 * Returns 1 when it is empty or belongs to this device; else 0, also when the configuration
 * can't be read or the device has no hardware address. A 0 with errno ENOMEM says nothing about
 * the id: memory ran out. In every other case errno is as it was before the call.
 */
ZARORELAYD_API int TLIBRelaydVerifyServerId(const char* serverId) ZARORELAYD_NOEXCEPT;

/*
 * Turns the daemon's debug log on, into the file `logFile`, and asks a running daemon to reload.
 *
 * Returns 0, whether or not a daemon is running; -1 when `logFile` is NULL, or when the
 * configuration can't be read, is not a JSON object, or can't be written (it is then as it was).
 */
ZARORELAYD_API int TLIBRelaydLogStart(const char* logFile) ZARORELAYD_NOEXCEPT;

/*
 * Removes level and file of the log from the configuration, so that the defaults hold again, and
 * asks a running daemon to reload.
 *
 * Returns 0, whether or not a daemon is running; -1 when the configuration can't be read, is not a
 * JSON object, or can't be written (it is then as it was).
 */
ZARORELAYD_API int TLIBRelaydLogStop(void) ZARORELAYD_NOEXCEPT;

#ifdef __cplusplus
}
#endif
