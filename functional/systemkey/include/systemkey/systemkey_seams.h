/*
 * Test seams of the system-key module.
 *
 * Production code never calls these. They let a self-test run against scratch
 * files instead of the device's fixed paths, and read exactly what would have
 * reached the system log. Each setter takes a copy of the path; null restores
 * the default. Change them only while no crypto operation is running.
 */
#ifndef SYSTEMKEY_SYSTEMKEY_SEAMS_H
#define SYSTEMKEY_SYSTEMKEY_SEAMS_H

/* Default "/korvenda/persistent/systemkey". Also forgets the cached
 * unwrapped key, which belongs to the previous file. */
void systemkey_setKeyFilePath(const char* path);
/* Default "/korvenda/persistent/crypto/bootstrap". */
void systemkey_setBootstrapKeyPath(const char* path);
/* Default "/korvenda/etc/kvlog.conf". Forgets the loaded levels, so the next
 * message reads the new file. */
void zel_setConfigPath(const char* path);

/* Receives each message line that passed the level filter, with its syslog
 * priority. The default sink writes it to the system log. */
typedef void (*zel_log_sink)(int priority, const char* message);
/* Replaces the sink; null restores the system log. */
void zel_setLogSink(zel_log_sink sink);

#endif
