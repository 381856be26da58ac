#include "record_stream.h"

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>

namespace {

constexpr uint32_t HEAD_SIZE = sizeof(SYSTEM_CALL_DBUS_HEAD);

// Returns whether the bytes at index `at` can begin a record: they match the head, or as much of it
// as has been read.
bool may_begin_record(const RecordReader& reader, uint32_t at) {
    const uint32_t head = SYSTEM_CALL_DBUS_HEAD;
    const uint32_t known = std::min(HEAD_SIZE, reader.filled - at);
    return memcmp(reader.bytes + at, &head, known) == 0;
}

void drop_until_next_head(RecordReader* reader) {
    uint32_t at = 1;
    while (at < reader->filled && !may_begin_record(*reader, at)) {
        ++at;
    }
    reader->filled -= at;
    memmove(reader->bytes, reader->bytes + at, reader->filled);
}

void limit_record_fields(SystemCallDbusMsg* record) {
    record->sender[SYSTEM_CALL_DBUS_NAME_SIZE - 1] = '\0';
    record->destination[SYSTEM_CALL_DBUS_NAME_SIZE - 1] = '\0';
    record->method[SYSTEM_CALL_DBUS_NAME_SIZE - 1] = '\0';
    record->len = std::min(record->len, SYSTEM_CALL_DBUS_DATA_SIZE);
}

// Waits until the socket accepts bytes again. Returns 0, also when a signal interrupts the wait, or
// -1 with errno set.
int wait_writable(int fd) {
    pollfd writable = {.fd = fd, .events = POLLOUT, .revents = 0};
    const int ready = poll(&writable, 1, RECORD_WRITE_STALL_MS);
    if (ready == 0) {
        errno = ETIMEDOUT;
        return -1;
    }
    return ready < 0 && errno != EINTR ? -1 : 0;
}

}  // namespace

RecordReadResult record_accept(RecordReader* reader, uint32_t byteCount) {
    reader->filled += byteCount;
    if (!may_begin_record(*reader, 0)) {
        reader->badHead = 0;
        memcpy(&reader->badHead, reader->bytes, std::min(HEAD_SIZE, reader->filled));
        drop_until_next_head(reader);
        return RECORD_BAD_HEAD;
    }
    if (reader->filled < sizeof(reader->bytes)) {
        return RECORD_INCOMPLETE;
    }
    limit_record_fields(&reader->record);
    reader->complete = true;
    return RECORD_COMPLETE;
}

RecordReadResult record_read(RecordReader* reader, int fd, ssize_t* byteCount) {
    if (reader->complete) {
        *reader = {};
    }
    // read(2) does not set errno when it returns 0, but callers then still check errno for EINTR.
    errno = 0;
    *byteCount = read(fd, reader->bytes + reader->filled, sizeof(reader->bytes) - reader->filled);
    if (*byteCount < 0) {
        return RECORD_FAILED;
    }
    if (*byteCount == 0) {
        return RECORD_END;
    }
    return record_accept(reader, static_cast<uint32_t>(*byteCount));
}

ssize_t record_write(int fd, const SystemCallDbusMsg& record) {
    const char* const bytes = reinterpret_cast<const char*>(&record);
    size_t written = 0;
    while (written < sizeof(record)) {
        const ssize_t n =
            send(fd, bytes + written, sizeof(record) - written, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            written += static_cast<size_t>(n);
            continue;
        }
        if (n == 0) {
            if (written == 0) {
                errno = 0;
                return 0;  // the stream is still intact, and a call that gets no reply times out
            }
            errno = EPIPE;
        }
        const bool retry = errno == EAGAIN ? wait_writable(fd) == 0 : errno == EINTR;
        if (!retry) {
            const int reason = errno;
            shutdown(fd, SHUT_RDWR);
            errno = reason;
            return -1;
        }
    }
    return static_cast<ssize_t>(written);
}
