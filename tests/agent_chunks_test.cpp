// Downloads of chunked images: what the camera has is not downloaded, whatever server and storage
// do. The cases are data.

#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "agent/chunked_download.h"
#include "chunked_images.h"
#include "package/content.h"
#include "session.h"
#include "simulated_server.h"
#include "stride.h"

namespace {

uint64_t g_flushed = 0;  // size of the file that was flushed last

}  // namespace

// Takes the place of the C library's fdatasync().
int flush_noted(int fd) __asm__("fdatasync");

int flush_noted(int fd) {
    struct stat status = {};
    g_flushed = fstat(fd, &status) == 0 ? static_cast<uint64_t>(status.st_size) : 0;
    return static_cast<int>(syscall(SYS_fdatasync, fd));
}

namespace {

const std::string FOLDER = "/run/download/";
const std::string STORED = "/run/stored.chunks";
// Zeros are the same chunk many times, and compress well.
const std::string IMAGE =
    pattern_bytes(1500000, 1) + std::string(300000, '\0') + pattern_bytes(300000, 2);
constexpr int CALLS_MAX = 20;

std::string image_before(const std::string& edit, size_t number) {
    std::string image = IMAGE;
    if (edit == "inserted") {
        image.insert(700000, pattern_bytes(number, 3));
    } else if (edit == "scattered") {
        for (size_t i = 0; i < number; ++i) {
            image[(2 * i + 1) * image.size() / number / 2] ^= 1;
        }
    } else if (edit == "moved") {
        image = IMAGE.substr(number) + IMAGE.substr(0, number);
    } else if (edit == "other") {
        image = pattern_bytes(number, 4);
    }
    return image;
}

Sha256 digest_of(const std::string& bytes) {
    Sha256Stream stream;
    stream.update(bytes);
    return stream.take();
}

struct Outcome {
    AgentStatus status;
    uint64_t copied = 0;  // bytes of the image that the camera has
    uint64_t toFetch = 0;
    uint64_t fetched = 0;
};

// A camera that has an older image, and the server with the new one.
struct World {
    World(const std::string& image, const PackedImage& packedImage, const std::string& before,
          const std::string& sources)
        : packed(packedImage), words(sources), image_(image) {
        std::filesystem::remove_all(FOLDER);
        std::filesystem::create_directories(FOLDER);
        remove(STORED.c_str());
        write_file(FOLDER + "rootfs.img.chunks", packed.index);
        // A partition is larger than its image.
        write_file("/run/partition", before + pattern_bytes(50000, 5));
        write_file("/run/half", before.substr(before.size() / 2));
        if (contains(words, "stored")) {
            write_file(STORED, pack(before).index);
        } else if (contains(words, "wrong")) {
            write_file(STORED, packed.index);
        } else if (contains(words, "damaged")) {
            write_file(STORED, pack(before).index.substr(0, 30001) + "rest");
        }
        module.file = "rootfs.img";
        module.size = image.size();
        module.sha256 = digest_of(contains(words, "contradicts") ? before : image);
        const auto described = [](const std::string& name, const std::string& bytes) {
            return ManifestFile{.name = name, .size = bytes.size(), .sha256 = digest_of(bytes)};
        };
        module.chunked = {.frames = described("rootfs.img.zst", packed.frames),
                          .index = described("rootfs.img.chunks", packed.index)};
        server.offer({.id = "11", .files = {{"rootfs.img.zst", packed.frames}}});
    }

    [[nodiscard]] std::vector<ChunkSource> open_sources() const {
        std::vector<ChunkSource> sources;
        for (const char* name : {"partition", "half"}) {
            if (contains(words, name)) {
                const std::string path = std::string("/run/") + name;
                sources.push_back(
                    {.file = corvo::UniqueFd(open(path.c_str(), O_RDONLY | O_CLOEXEC)),
                     .storedIndex = std::filesystem::exists(STORED) ? STORED : ""});
            }
        }
        return sources;
    }

    // One call, with a server that sends the file from the start, as a program started anew makes.
    Outcome run(const std::string& newIndex = "") {
        Outcome outcome;
        Server camera({.url = server.url(),
                       .controllerId = SimulatedServer::CONTROLLER,
                       .authorization = SimulatedServer::AUTHORIZATION,
                       .stallTimeoutS = 2},
                      stop);
        DdiAction action;
        OpenFolder folder;
        EXPECT_TRUE(
            camera
                .get_action(server.url() + "/DEFAULT/controller/v1/cam%201/" + "deploymentBase/11",
                            action)
                .ok());
        EXPECT_TRUE(open_folder({.path = FOLDER}, folder).ok());
        std::vector<ChunkSource> sources = open_sources();
        const ChunkedCalls calls = {.request =
                                        [&] {
                                            ++requests;
                                            return AgentStatus{};
                                        },
                                    .plan =
                                        [&](uint64_t toFetch, uint64_t copied) {
                                            if (contains(words, "changing")) {
                                                write_file("/run/partition",
                                                           pattern_bytes(image_.size(), 8));
                                            }
                                            outcome.toFetch = toFetch;
                                            outcome.copied = copied;
                                        },
                                    .progress =
                                        [&](uint64_t fetched) {
                                            EXPECT_GE(fetched, outcome.fetched);
                                            outcome.fetched = fetched;
                                            return fetched < stopAt;
                                        }};
        outcome.status = download_chunked(
            camera, {.module = module, .frames = action.files[0], .storedIndex = newIndex}, sources,
            folder, calls);
        return outcome;
    }

    std::string text_of(const Outcome& outcome) {
        constexpr const char* NAMES[] = {"OK",        "UNREACHABLE", "REFUSED", "GONE",
                                         "MALFORMED", "DIFFERENT",   "STORAGE", "STOPPED"};
        const std::string left = names_in(FOLDER);
        EXPECT_TRUE(!contains(left, "rootfs.img ") && !left.ends_with("rootfs.img")
                        ? !outcome.status.ok()
                        : read_file(FOLDER + "rootfs.img") == image_);
        std::string text = replaced(outcome.status.text, "(cannot reach [^ ]*): .*", "$1");
        text = replaced(replaced(text, server.url(), "SERVER"), "[0-9a-f]{64}", "SHA256");
        return std::string(NAMES[outcome.status.result]) + (text.empty() ? "" : " ") + text +
               "; had " + std::to_string(outcome.copied) + ", fetched " +
               std::to_string(outcome.fetched) + " of " + std::to_string(outcome.toFetch) + ";" +
               replaced(left, " rootfs.img.chunks", "");
    }

    // Calls again after each interruption.
    std::string run_until_decided() {
        uint64_t fetched = 0;
        int interrupted = 0;
        Outcome outcome = run();
        while (outcome.status.result == AGENT_UNREACHABLE && ++interrupted < CALLS_MAX) {
            fetched += outcome.fetched;
            outcome = run();
        }
        return (interrupted == 0 ? ""
                                 : std::to_string(interrupted) + " times UNREACHABLE, fetched " +
                                       std::to_string(fetched) + ", ") +
               text_of(outcome);
    }

    const PackedImage& packed;
    const std::string words;
    ManifestModule module = {};
    SimulatedServer server{SimulatedServer::Setup{}};
    std::atomic<bool> stop{false};
    uint64_t stopAt = UINT64_MAX;
    uint32_t requests = 0;

  private:
    const std::string image_;
};

// The ranges that were requested; of many, their number.
std::string asked(const SimulatedServer& server) {
    std::string text;
    size_t count = 0;
    for (const SimulatedRequest& request : server.requests()) {
        if (request.what == "file") {
            ++count;
            text += (text.empty() ? "" : ", ") +
                    (request.range.empty() ? "all" : request.range.substr(6)) +
                    (request.condition.empty() ? "" : " if the same");
        }
    }
    return "asked " + (count == 0  ? "nothing"
                       : count > 4 ? std::to_string(count) + " times"
                                   : text);
}

TEST(AgentChunks, OnlyMissingOnesAreDownloaded) {
    expect_cases("agent_chunks.txt", [](std::istream& row) {
        std::string edit, sources;
        size_t number = 0;
        row >> edit >> number;
        std::getline(row, sources, ';');
        static const PackedImage PACKED = pack(IMAGE);
        World world(IMAGE, PACKED, image_before(edit, number), sources);
        return do_steps(
            rest_of(row),
            {{"server",
              [&](Text first, Text rest) {
                  world.server.misbehave(first + " " + rest);
                  return "";
              }},
             {"image", [&](Text, Text) { return world.text_of(world.run()); }},
             {"images", [&](Text, Text) { return world.run_until_decided(); }},
             {"store",
              [&](Text path, Text) {
                  const std::string text = world.text_of(world.run(path));
                  return text +
                         (std::filesystem::exists(path) && read_file(path) == world.packed.index
                              ? " and its index"
                              : "");
              }},
             {"stop",
              [&](Text bytes, Text) {
                  world.stopAt = strtoull(bytes.c_str(), nullptr, 10);
                  return "";
              }},
             {"flushed",
              [&](Text, Text) { return "flushed " + std::to_string(std::exchange(g_flushed, 0)); }},
             {"asked", [&](Text, Text) { return asked(world.server); }}});
    });
}

// 80 small changes at growing distances: no more ranges are joined than the limit requires.
TEST(AgentChunks, JoinsUntilTheLimitOfRequests) {
    const std::string before = pattern_bytes(4000000, 8);
    std::string image = before;
    for (size_t i = 0, at = 10000; i < 80; ++i, at += 30000 + 400 * i) {
        image[at] ^= 1;
    }
    const PackedImage packed = pack(image);
    // A range that comes damaged is requested twice, within the limit.
    for (const char* faults : {"", "file:2 flip 70"}) {
        World world(image, packed, before, "partition stored");
        world.server.misbehave(faults);
        EXPECT_EQ("", world.run().status.text);
        EXPECT_EQ(CHUNK_REQUESTS_MAX, world.requests);
        EXPECT_TRUE(read_file(FOLDER + "rootfs.img") == image);
    }
}

TEST(AgentChunks, ImageOfOneChunkIsDownloaded) {
    const std::string image = pattern_bytes(5000, 9);
    const PackedImage packed = pack(image);
    World world(image, packed, "", "partition");
    EXPECT_EQ("", world.run().status.text);
    EXPECT_TRUE(read_file(FOLDER + "rootfs.img") == image);
}

// Whatever was edited, no more is fetched than the frames of changed chunks and the gaps between
// them, in 64 requests at most.
TEST(AgentChunks, RandomEditsCostWhatTheyChange) {
    constexpr uint64_t GAP_MAX = 16384;
    const std::string program = read_file("/proc/self/exe").substr(0, 500000);
    std::minstd_rand random(6);
    const auto below = [&random](size_t most) { return random() % most; };
    for (int i = 0; i < 12; i += sweep_stride()) {
        SCOPED_TRACE(i);
        const std::string before = pattern_bytes(500000, 7) + program;
        std::string image = before;
        for (size_t edits = 1 + below(i % 3 == 0 ? 150 : 9); edits > 0; --edits) {
            const size_t at = below(image.size() - 20000);
            const std::string part = image.substr(at, 1 + below(10000));
            if (below(2) == 0) {
                image.erase(at, part.size());
            }
            image.insert(
                below(image.size()),
                below(2) == 0 ? part : pattern_bytes(part.size(), static_cast<unsigned>(random())));
        }
        const PackedImage packed = pack(image);
        const bool isCut = i % 2 == 1;
        World world(image, packed, before, isCut ? "partition" : "partition stored");
        const std::vector<std::string> had =
            chunks_of(isCut ? before + pattern_bytes(50000, 5) : before);
        std::set<std::string> known(had.begin(), had.end());
        // The last chunk of an image is found after the one before it, although its end is not that
        // of the partition.
        const std::vector<std::string> wanted = chunks_of(image);
        if (isCut && known.contains(wanted.end()[-2])) {
            known.insert(chunks_of(before).back());
        }
        ChunkIndex index;
        uint32_t wrong = 0;
        ASSERT_EQ(CHUNKS_OK, read_chunk_index(world.packed.index, image.size(),
                                              world.packed.frames.size(), index, wrong));
        uint64_t missing = 0;  // bytes of ranges, which are joined over small gaps
        uint64_t gap = GAP_MAX + 1;
        uint32_t ranges = 0;
        uint32_t number = 0;
        for (const std::string& chunk : wanted) {
            gap += chunk_entry(index, number++).frameSize;
            if (!known.contains(chunk)) {
                const uint64_t size = chunk_entry(index, number - 1).frameSize;
                const bool isJoined = gap - size <= GAP_MAX;
                ranges += isJoined ? 0 : 1;
                missing += isJoined ? gap : size;
                gap = 0;
            }
        }
        const Outcome outcome = world.run();
        EXPECT_EQ("", outcome.status.text);
        EXPECT_TRUE(read_file(FOLDER + "rootfs.img") == image);
        EXPECT_EQ(outcome.toFetch, outcome.fetched);
        EXPECT_LE(world.requests, CHUNK_REQUESTS_MAX);
        if (ranges <= CHUNK_REQUESTS_MAX) {
            EXPECT_EQ(ranges, world.requests);
            EXPECT_EQ(missing, outcome.fetched);
        }
        EXPECT_LE(outcome.fetched, world.packed.frames.size());
    }
}

}  // namespace
