/* The appliance's platform library, libzelkova.so.0: what a program of the appliance asks of the platform.
 *
 * A C interface. Whatever a function returns as owned is freed with free(). Every function may be called from any
 * process of the appliance; none keeps state between calls. */

#ifndef ZELKOVA_H
#define ZELKOVA_H

#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Hands an event to the management daemon: one datagram to the socket "/var/run/zelkovad/event" that holds kind,
 * "\n", source, "\n", the two integers separated by one blank, "\n" and the message, without a terminator.
 * Waits at most 2 seconds for a full socket. Returns 0 when the event was taken. Otherwise -1, and the event goes to
 * the system log (facility daemon, level notice, ident "zelkova"), so that it never disappears without a trace; what
 * the caller had set with openlog() is forgotten then. A null text counts as an empty one. Callers ignore the result.
 */
int event_push(const char *kind, const char *source, const char *message, int first, int second);

/* Runs `path` (looked up on the search path when it holds no "/") with the null-terminated vector `argv`, argv[0]
 * included, and waits for it. The program starts in the caller's process group with no signal blocked or ignored.
 * Returns the exit status, 0 to 255, or -1 when the program could not be started, was ended by a signal, or left no
 * status because the caller ignores SIGCHLD. */
int exec_cmd(const char *path, const char *const argv[]);

/* The value of the first line "NAME=VALUE" of "/etc/default/services" with exactly that name: all text up to the end of
 * the line, possibly none. Owned by the caller; null when there is no such line or the file cannot be read. */
char *get_ts_services_setting(const char *name);

struct sys_info {
    int hardware_type; /* 0: unknown */
};

/* Fills `info` from the line "HARDWARE_TYPE=n" of "/etc/tessera/sysinfo"; without such a line, or when n is no decimal
 * number, the type is unknown. Returns 0, or -1 with a zeroed record when the file cannot be read. */
int get_sys_info(struct sys_info *info);

/* Sends the 102-byte wake-on-LAN packet of a hardware address (six hexadecimal pairs, all separated by ":", all by "-"
 * or all by nothing) by UDP broadcast to port 9: to 255.255.255.255 and to the broadcast address of every interface
 * that is up and can broadcast, once to each address. Returns 0 when at least one was sent, -1 for a malformed address
 * or when none could be. */
int send_wol_packet(const char *hardware_address);

/* open() with O_CLOEXEC, retried when a signal interrupts it. Returns the descriptor, or -1 with errno set. */
int safe_open(const char *path, int flags, mode_t mode);

/* asprintf() that leaves `*out` null when it fails. Returns the length, or -1. */
int safe_asprintf(char **out, const char *format, ...) __attribute__((format(printf, 2, 3)));

/* One formatted argument of a vector, owned by the caller; null when it cannot be allocated. */
char *add_arg(const char *format, ...) __attribute__((format(printf, 1, 2)));

/* Frees a null-terminated vector from malloc() and every argument in it; null: nothing. */
void argv_free(char **argv);

/* Splits `line` in place at every whole `separator`, from left to right. Returns the true number of fields, one more
 * than there are separators, and stores the first `max_fields` of them in `fields`; they point into `line`. An empty
 * separator leaves the line as one field. A null line has no field. */
int split(char *line, const char *separator, char **fields, int max_fields);

/* Copies `src` into `dst` of `size` bytes, cut to fit and terminated (a size of 0 writes nothing; a null `src` counts
 * as empty). Returns `dst`. */
char *strncpyt(char *dst, const char *src, size_t size);

/* Appends `src` to the text in `dst` of `size` bytes, cut to fit and terminated (a size of 0 writes nothing; a null
 * `src` counts as empty). Returns `dst`. */
char *strncat_safe(char *dst, const char *src, size_t size);

/* 1 when `path` exists and has the file type `mode` (one of the S_IF... values; 100 accepts any type), else 0. Symbolic
 * links are followed. */
int exists(const char *path, int mode);

/* Writes the file system that holds `path` to its disk. Returns 0, or -1 with errno set. */
int sync_fs(const char *path);

#ifdef __cplusplus
}
#endif

#endif
