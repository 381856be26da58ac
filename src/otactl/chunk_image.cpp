#include "otactl/chunk_image.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <new>
#include <thread>
#include <vector>

#include "base/replace_file.h"
#include "chunks/cutter.h"
#include "chunks/frame.h"
#include "cli/error_line.h"
#include "cli/progress_line.h"
#include "otactl/commands.h"
#include "package/content.h"
#include "package/modules.h"

namespace {

// So many bytes of the image are compressed at a time: enough work to start threads for.
constexpr size_t BATCH_SIZE = 8388608;

struct Frame {
    std::span<const char> chunk;
    std::vector<char> bytes;
    ChunkEntry entry;
};

struct Output {
    std::string path;
    corvo::UniqueFd file;
    Sha256Stream sha256;
    uint64_t size = 0;
};

struct Chunking {
    std::vector<ChunkWriter> writers;  // one for each thread
    std::vector<Frame> frames;         // of the current batch
    Output output;
    std::string entries;
    uint32_t count = 0;
};

int failed(const std::string& what, const std::string& path) {
    print_error(OTACTL, "cannot " + what + " " + path + ": " + strerror(errno));
    return OTACTL_FAILED;
}

// Takes frames until none is left. Returns false when memory is short.
bool compress_frames(ChunkWriter& writer, std::vector<Frame>& frames, std::atomic<size_t>& next) {
    char bytes[FRAME_SIZE_MAX];
    for (size_t i = next++; i < frames.size(); i = next++) {
        Frame& frame = frames[i];
        if (make_frame(writer, frame.chunk, bytes, frame.entry) != CHUNKS_OK) {
            return false;
        }
        frame.bytes.assign(bytes, bytes + frame.entry.frameSize);
    }
    return true;
}

void compress_batch(Chunking& chunking) {
    std::atomic<size_t> next = 0;
    std::atomic<bool> complete = true;
    {
        std::vector<std::jthread> threads;
        for (ChunkWriter& writer : chunking.writers) {
            threads.emplace_back([&] {
                if (!compress_frames(writer, chunking.frames, next)) {
                    complete = false;
                }
            });
        }
    }
    if (!complete) {
        throw std::bad_alloc();
    }
}

int write_batch(Chunking& chunking) {
    compress_batch(chunking);
    for (const Frame& frame : chunking.frames) {
        if (!corvo::write_all(chunking.output.file.get(),
                              {frame.bytes.data(), frame.bytes.size()})) {
            return failed("write", chunking.output.path);
        }
        chunking.output.sha256.update(frame.bytes);
        chunking.output.size += frame.bytes.size();
        const auto entry = format_chunk_entry(frame.entry);
        chunking.entries.append(entry.data(), entry.size());
        ++chunking.count;
    }
    chunking.frames.clear();
    return OTACTL_OK;
}

// Adds the chunks that are complete with the bytes from `begin` on. Returns the start of the chunk
// that is not complete.
size_t cut_batch(ChunkCutter& cutter, std::span<const char> batch, size_t begin,
                 std::vector<Frame>& frames) {
    size_t start = begin - cutter.size;
    for (size_t at = begin; at < batch.size();) {
        bool complete = false;
        at += cut_chunk(cutter, batch.subspan(at), complete);
        if (complete) {
            frames.emplace_back().chunk = batch.subspan(start, at - start);
            start = at;
        }
    }
    return start;
}

// Reads until the buffer is full or the file ends. Returns the number of bytes, or -1.
ssize_t fill(int file, std::span<char> buffer) {
    size_t done = 0;
    while (done < buffer.size()) {
        const ssize_t taken = read(file, buffer.data() + done, buffer.size() - done);
        if (taken < 0) {
            return -1;
        }
        if (taken == 0) {
            break;
        }
        done += static_cast<size_t>(taken);
    }
    return static_cast<ssize_t>(done);
}

int write_frames(const std::string& path, uint64_t size, Chunking& chunking,
                 ManifestModule& module) {
    const corvo::UniqueFd image(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!image.valid()) {
        return failed("read", path);
    }
    ProgressLine line(true, path, size);
    Sha256Stream sha256;
    ChunkCutter cutter;
    std::vector<char> buffer(BATCH_SIZE + CHUNK_SIZE_MAX);
    size_t kept = 0;  // bytes of a chunk that is not complete, at the start of the buffer
    for (bool atEnd = false; !atEnd;) {
        const ssize_t taken = fill(image.get(), std::span(buffer).subspan(kept));
        if (taken < 0) {
            return failed("read", path);
        }
        const std::span<const char> batch(buffer.data(), kept + static_cast<size_t>(taken));
        atEnd = batch.size() < buffer.size();
        sha256.update(batch.subspan(kept));
        module.size += static_cast<uint64_t>(taken);
        const size_t start = cut_batch(cutter, batch, kept, chunking.frames);
        if (atEnd && start < batch.size()) {
            chunking.frames.emplace_back().chunk = batch.subspan(start);
        }
        const int result = write_batch(chunking);
        if (result != OTACTL_OK) {
            return result;
        }
        kept = batch.size() - start;
        memmove(buffer.data(), batch.data() + start, kept);
        line.show(module.size);
    }
    module.sha256 = sha256.take();
    return OutputFiles::flush(chunking.output.path, chunking.output.file);
}

int write_index(const std::string& path, const Chunking& chunking, OutputFiles& files,
                ManifestModule& module) {
    const auto head = format_chunk_index_head({.entries = {},
                                               .count = chunking.count,
                                               .imageSize = module.size,
                                               .framesSize = chunking.output.size});
    const std::string bytes = std::string(head.data(), head.size()) + chunking.entries;
    Sha256Stream sha256;
    sha256.update(bytes);
    module.chunked->index = {
        .name = module.file + INDEX_SUFFIX, .size = bytes.size(), .sha256 = sha256.take()};
    return files.write(path + INDEX_SUFFIX, bytes);
}

}  // namespace

int chunk_image(const std::string& path, uint64_t size, OutputFiles& files,
                ManifestModule& module) {
    Chunking chunking;
    chunking.writers.resize(std::max(1U, std::thread::hardware_concurrency()));
    for (ChunkWriter& writer : chunking.writers) {
        if (make_chunk_writer(writer) != CHUNKS_OK) {
            throw std::bad_alloc();
        }
    }
    chunking.output.path = path + FRAMES_SUFFIX;
    int result = files.create(chunking.output.path, chunking.output.file);
    if (result == OTACTL_OK) {
        result = write_frames(path, size, chunking, module);
    }
    if (result != OTACTL_OK) {
        return result;
    }
    if (module.size > IMAGE_SIZE_MAX || chunking.output.size > IMAGE_SIZE_MAX) {
        print_error(OTACTL, "cannot use " + path + ": larger than 2 GiB");
        return OTACTL_WRONG_USE;
    }
    module.chunked.emplace().frames = {.name = module.file + FRAMES_SUFFIX,
                                       .size = chunking.output.size,
                                       .sha256 = chunking.output.sha256.take()};
    return write_index(path, chunking, files, module);
}
