// Descriptors, pipes and thread ids of Linux. All descriptors are close-on-exec, and none is 0, 1 or 2: a
// host that has closed its standard streams must not find itself printing into a pipe of the agent's.
#pragma once

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

enum : int32_t { FILE_NAME_SIZE = 3072 };

// System id of the calling thread. Valid once init_cpu has run.
int32_t qor_current_thread_id();

// perror with a formatted text.
void qor_perror(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Opens a file to read, without waiting for a FIFO's writer: the descriptor, or -1 with errno set.
int32_t qor_open_read(const char *path);

// What an open file is. The host may close a descriptor of ours and get its number for a file of its own, so
// that a descriptor which is kept is compared before each use. Any thread.
struct QorKeptFile {
    dev_t device;
    ino_t inode;
};
// Notes the file of a descriptor; false when it isn't open.
bool QorNoteFile(int32_t fd, QorKeptFile *file);
// Whether the descriptor is still that file's. One that isn't must not be closed.
bool QorIsFile(int32_t fd, const QorKeptFile &file);

// Opens a file to append to, made for its owner alone when it isn't there: the descriptor, or -1. Refused is
// what is neither a regular file nor a FIFO, belongs to another user, or is a link, whose maker may be one.
// Doesn't wait for a FIFO's reader: without one it fails.
int32_t qor_open_append(const char *path);

// Makes a pipe: fds[0] to read, fds[1] to write. False, with both ends -1, when there is none to be had.
bool qor_create_pipe(int32_t fds[2]);

// One write or one read; a short transfer or an interrupt is the caller's to see.
ssize_t qor_write_file(int32_t fd, const void *data, size_t count);
ssize_t qor_read_file(int32_t fd, void *data, size_t count);

// Closes a descriptor once and leaves -1 behind; 0 for one that is -1 already. Else as close.
int32_t qor_close_handle(int32_t *fd);
int32_t qor_close_pipe(int32_t fds[2]);

// Waits up to `seconds` (below 0: not at all) for input, through interrupts. 1 when a read would not block,
// be it for data, hang-up or error; 0 when the time is over, on failure, and for descriptor -1.
int32_t qor_can_read_internal(int32_t fd, int32_t seconds);
int32_t QorCanReadWithin(int32_t fd, int64_t msec);

// Limits the socket's sends and receives to 5 seconds; not on a Nimb JVM.
void qor_set_socket_TO(int32_t socket); // nothing calls it

// The name behind a descriptor into FILE_NAME_SIZE bytes. 0, or -1 with the destination as it was.
int32_t QorGetFileNameFromFD(int32_t fd, char *out);
