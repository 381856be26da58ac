// Reads and writes whole records on a stream socket. The socket may deliver a record in pieces, and
// a faulty peer may send bytes that are not a record. Client and server role both use these
// functions.
#ifndef DBUS_RECORD_STREAM_H
#define DBUS_RECORD_STREAM_H

#include <sys/types.h>

#include "dbus/dbus_socket_common.h"

// If the peer accepts no byte for this long, it has stopped reading. The writer then gives up the
// connection, because it holds the endpoint lock while it waits.
constexpr int32_t RECORD_WRITE_STALL_MS = 1000;

enum RecordReadResult : int32_t {
    RECORD_COMPLETE,    // `record` contains a whole record
    RECORD_INCOMPLETE,  // more bytes are needed
    RECORD_BAD_HEAD,    // the bytes do not begin with a record's head; see RecordReader::badHead
    RECORD_END,         // the peer closed the connection
    RECORD_FAILED,      // read(2) failed; errno is set
};

// The reading state of one connection. Zero-initialise it before the first read.
struct RecordReader {
    union {
        SystemCallDbusMsg record;
        uint8_t bytes[sizeof(SystemCallDbusMsg)];
    };
    uint32_t filled;   // number of bytes read so far of the next record
    uint32_t badHead;  // after RECORD_BAD_HEAD: the first four bytes; bytes not yet read are 0
    bool complete;     // `record` has been returned; the next read begins a new record
};

// Calls read(2) once; blocks until bytes arrive. Stores the result of read(2) in *byteCount. After
// RECORD_COMPLETE the record's text fields are NUL-terminated and its len is at most
// SYSTEM_CALL_DBUS_DATA_SIZE. After RECORD_BAD_HEAD all bytes before the next possible head have
// been dropped; the caller reports that and continues reading.
RecordReadResult record_read(RecordReader* reader, int fd, ssize_t* byteCount);

// As record_read(), for byteCount bytes (1 or more) that the caller has appended to `bytes` after
// the `filled` bytes that were there.
RecordReadResult record_accept(RecordReader* reader, uint32_t byteCount);

// Writes the whole record. Blocks at most RECORD_WRITE_STALL_MS between two pieces; raises no
// SIGPIPE. After a failure the connection is shut down, because the peer may have received a part
// of the record and would take the next record for the rest of it. Returns the number of bytes
// written: 1236, or 0 when the first send(2) wrote nothing. Returns -1 with errno set on failure
// (ETIMEDOUT when the peer does not read).
ssize_t record_write(int fd, const SystemCallDbusMsg& record);

#endif  // DBUS_RECORD_STREAM_H
