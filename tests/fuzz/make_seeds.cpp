// Writes a few valid inputs for each fuzz target to a folder, so that the fuzzers need not discover
// the formats first.
#include <string.h>
#include <sys/stat.h>

#include <fstream>
#include <string>

#include "chunks/frame.h"
#include "dbus/system_call.h"
#include "ota/ota_message.h"

namespace {

std::string g_folder;

void seed(const std::string& target, const std::string& name, const std::string& content) {
    mkdir((g_folder + "/" + target).c_str(), 0755);
    std::ofstream(g_folder + "/" + target + "/" + name, std::ios::binary) << content;
}

template <typename Record>
std::string bytes_of(const Record& record) {
    return {reinterpret_cast<const char*>(&record), sizeof(record)};
}

// Splits the record into pieces, and puts before each piece the byte that determines its size.
std::string in_pieces(const std::string& record, uint8_t eighths) {
    std::string pieces;
    for (size_t at = 0; at < record.size(); at += 1U + eighths * 8U) {
        pieces += static_cast<char>(eighths);
        pieces += record.substr(at, 1U + eighths * 8U);
    }
    return pieces;
}

void record_seeds() {
    SystemCallDbusMsg record = {};
    record.head = SYSTEM_CALL_DBUS_HEAD;
    record.id = 0x01020304;
    record.type = SYSTEM_CALL_DBUS_TYPE_METHOD;
    memcpy(record.method, SYSTEM_CALL_METHOD, sizeof(SYSTEM_CALL_METHOD));
    record.len = 1;
    record.data[0] = '0';
    for (const char* target : {"fuzz_client_reader", "fuzz_server_reader"}) {
        seed(target, "whole", in_pieces(bytes_of(record), 255));
        seed(target, "pieces", in_pieces(bytes_of(record) + bytes_of(record), 20));
        seed(target, "late_head", in_pieces("junk" + bytes_of(record), 40));
    }
}

void request_seeds() {
    OtaMessage message = {};
    memcpy(message.packageDir, "/tmp/", sizeof("/tmp/"));
    message.moduleCount = 2;
    message.moduleTypes[0] = 3;
    message.moduleTypes[1] = 4;
    message.moduleInfo[1] = {.size = 5, .offset = 6};
    memcpy(message.packageFile, "all.pkg", sizeof("all.pkg"));
    const std::string yes("\xFF\xFF\xFF\xFF", 4);
    seed("fuzz_request", "files", yes + bytes_of(message));
    message.packageType = OTA_PACKAGE_TYPE_COMBINED;
    seed("fuzz_request", "combined", yes + bytes_of(message));
}

// Frames of zeros, of text and of bytes that cannot be compressed, and their index.
void chunk_seeds() {
    ChunkWriter writer;
    ChunkIndex index;
    std::string entries;
    if (make_chunk_writer(writer) != CHUNKS_OK) {
        return;
    }
    for (const unsigned step : {0U, 1U, 77U}) {
        std::string chunk;
        unsigned value = 1;
        for (unsigned i = 0; i < 3000; ++i) {
            value = value * 1664525 + step;
            chunk += static_cast<char>(step == 1 ? 'a' + i % 7 : (value >> 24) * step);
        }
        char frame[FRAME_SIZE_MAX];
        ChunkEntry entry;
        (void)make_frame(writer, chunk, frame, entry);
        const uint16_t size = static_cast<uint16_t>(entry.size - 1);
        seed("fuzz_chunk_frame", "frame-" + std::to_string(step),
             bytes_of(size) + std::string(frame, entry.frameSize));
        const auto bytes = format_chunk_entry(entry);
        entries.append(bytes.begin(), bytes.end());
        ++index.count;
        index.imageSize += entry.size;
        index.framesSize += entry.frameSize;
    }
    const auto head = format_chunk_index_head(index);
    seed("fuzz_chunk_index", "index", std::string(head.begin(), head.end()) + entries);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        return 64;
    }
    g_folder = argv[1];
    mkdir(g_folder.c_str(), 0755);
    record_seeds();
    request_seeds();
    chunk_seeds();
    seed("fuzz_mtd_table", "line", "mtd3: 00080000 00020000 \"kernel\"\n");
    seed("fuzz_log_line", "text", "moduleType %d %s %n");
    seed("fuzz_manifest", "version_1", "# a package\nkernel 0 100 0123abcd\nrootfs 100 5\n");
    const std::string head = "corvo-manifest 2\ncompatible R5C20\nversion 2.7.1\n";
    const std::string digest(64, 'a');
    seed("fuzz_manifest", "files",
         head + "kernel kernel.bin 100 " + digest + "\nrootfs rootfs.img 5 " + digest + "\n");
    seed("fuzz_manifest", "chunked",
         "corvo-manifest 3\ncompatible R5C20\nversion 2.7.1\nrootfs a 9999 " + digest +
             " a.zst 99 " + digest + " a.chunks 64 " + digest + '\n');
    seed("fuzz_manifest", "combined",
         head + "description New\npackage all.pkg\nkernel 0 100 " + digest + "\nrootfs 200 5 " +
             digest + "\n");
    const std::string link = R"({"href":"http://h/1?c=2"})";
    seed("fuzz_ddi", "poll",
         R"({"config":{"polling":{"sleep":"00:05:00"}},"_links":{"configData":)" + link +
             R"(,"deploymentBase":)" + link + R"(,"cancelAction":)" + link + "}}");
    seed("fuzz_ddi", "action",
         R"({"id":"11","deployment":{"download":"forced","update":"skip",)"
         R"("maintenanceWindow":"available","chunks":[{"artifacts":[{"filename":"a.bin","size":5,)"
         R"("hashes":{"sha256":")" +
             digest + R"("},"_links":{"download":)" + link + R"(,"download-http":)" + link +
             "}}]}]}}");
    seed("fuzz_ddi", "cancellation", R"({"id":"12","cancelAction":{"stopId":"11"}})");
    // Large enough to detect CPU time that grows faster than the text's size, and too large to be a
    // seed. Therefore it is in another folder.
    std::string wide = R"({"a":[{})";
    while (wide.size() < 65536) {
        wide += ",{}";
    }
    seed("fuzz_ddi_large", "wide", wide + "]}");
    seed("fuzz_ddi", "error", R"({"errorCode":"hawkbit.server.error","message":"no"})");
    return 0;
}
