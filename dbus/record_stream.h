// Records on a byte stream: a stream socket may deliver a record in pieces, and a faulty peer may
// send what is no record at all. Both halves of the transport read and write through this.
#ifndef DBUS_RECORD_STREAM_H
#define DBUS_RECORD_STREAM_H

#include <sys/types.h>

#include "dbus/dbus_socket_common.h"

// A peer that takes no byte for this long has stopped reading; the writer, which holds the endpoint
// lock, gives the connection up.
constexpr int32_t RECORD_WRITE_STALL_MS = 1000;

enum RecordReadResult : int32_t {
    RECORD_COMPLETE,    // a whole record stands in `record`
    RECORD_INCOMPLETE,  // more bytes are needed
    RECORD_BAD_HEAD,    // what was read begins with something else; see RecordReader::badHead
    RECORD_END,         // the peer closed the connection
    RECORD_FAILED,      // read(2) failed, errno says why
};

// Zero-initialise before the first read; one per connection.
struct RecordReader {
    union {
        SystemCallDbusMsg record;
        uint8_t bytes[sizeof(SystemCallDbusMsg)];
    };
    uint32_t filled;   // bytes gathered of the next record
    uint32_t badHead;  // after RECORD_BAD_HEAD: the first four bytes, zeros beyond what was read
    bool complete;     // `record` was handed out; the next read begins a new one
};

// Makes one read(2), blocking until something arrives, and says what that gave; byteCount receives
// the result of that read. After RECORD_COMPLETE the record's text fields are terminated and its
// len is at most SYSTEM_CALL_DBUS_DATA_SIZE. After RECORD_BAD_HEAD everything before the next
// possible head has been dropped; the caller reports it and goes on reading.
RecordReadResult record_read(RecordReader* reader, int fd, ssize_t* byteCount);

// The same for byteCount bytes (1 or more) that the caller has put behind the `filled` ones.
RecordReadResult record_accept(RecordReader* reader, uint32_t byteCount);

// Writes the record whole. Blocks at most RECORD_WRITE_STALL_MS between two pieces; raises no
// SIGPIPE. On failure the connection is shut down, since the peer would take the rest of a record
// for the beginning of one.
// Returns the bytes written: 1236; 0 when a first write moved nothing; or -1 with errno set
// (ETIMEDOUT when the peer does not read).
ssize_t record_write(int fd, const SystemCallDbusMsg& record);

#endif  // DBUS_RECORD_STREAM_H
