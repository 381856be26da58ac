#include "package/manifest.h"

#include <algorithm>
#include <span>

#include "base/hex.h"
#include "chunks/index.h"
#include "manifest_lines.h"
#include "ota/ota_message.h"
#include "package/modules.h"
#include "package/version.h"

namespace {

constexpr std::string_view MAGIC = "corvo-manifest ";
constexpr std::string_view FIRST_LINE = "corvo-manifest 2";
constexpr std::string_view FIRST_LINE_CHUNKED = "corvo-manifest 3";
constexpr size_t FILE_NAME_MAX = sizeof(OtaPackageEntry::fileName) - 1;
constexpr size_t MODULE_NAME_MAX = sizeof(OtaPackageEntry::partitionName) - 1;
constexpr size_t KIND_MAX = 64;
constexpr size_t DESCRIPTION_MAX = 200;
constexpr size_t FIELDS = 4;
constexpr size_t FIELDS_CHUNKED = 10;

// Accepts letters, digits, ".", "_" and "-" only, which are safe in a path, a URL and a shell.
bool is_name(std::string_view text, size_t most) {
    return !text.empty() && text.size() <= most && text.front() != '.' && text.front() != '-' &&
           std::all_of(text.begin(), text.end(), [](char c) {
               return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                      c == '.' || c == '_' || c == '-';
           });
}

struct HeadLine {
    std::string_view key;
    bool required;
    bool (*valid)(std::string_view value);
    std::string Manifest::*field;
    const char* expected;
};

// The lines of the head, in the order in which they must appear.
constexpr std::array HEAD = {
    HeadLine{"compatible", true, is_camera_kind, &Manifest::compatible,
             "expected \"compatible NAME\", the hardware type"},
    HeadLine{"version", true, is_version, &Manifest::version,
             "expected \"version NUMBER.NUMBER...\""},
    HeadLine{"description", false, is_description, &Manifest::description,
             "expected \"description TEXT\", up to 200 printable ASCII characters"},
    HeadLine{"package", false, is_file_name, &Manifest::package,
             "expected \"package FILE\", the combined package without a folder"},
};

// Sets `value` to the value of a head line. Returns false when the line has another key.
bool has_key(std::string_view line, std::string_view key, std::string_view& value) {
    if (!line.starts_with(key) || line.substr(key.size(), 1) != " ") {
        return false;
    }
    value = line.substr(key.size() + 1);
    return true;
}

// Rejects leading zeros, so that each number can be written in one way only.
bool parse_decimal(std::string_view field, uint64_t& value) {
    return parse_number(field, value, 10) && (field.size() == 1 || field.front() != '0');
}

// Rejects upper-case digits, so that each digest can be written in one way only.
bool parse_digest(std::string_view field, Sha256& digest) {
    return corvo::parse_hex(field, digest) && digest_text(digest) == field;
}

// Returns the fields between single spaces, or none if one of them is empty.
std::vector<std::string_view> split_fields(std::string_view line) {
    std::vector<std::string_view> fields;
    for (;;) {
        const size_t end = std::min(line.find(' '), line.size());
        if (end == 0) {
            return {};
        }
        fields.push_back(line.substr(0, end));
        if (end == line.size()) {
            return fields;
        }
        line.remove_prefix(end + 1);
    }
}

// Parses the fields NAME SIZE SHA256 of one of the two files of a chunked image.
std::string take_file(std::span<const std::string_view> fields, const std::string& name,
                      uint64_t most, ManifestFile& file) {
    if (fields[0] != name) {
        return "expected the file name " + name;
    }
    file.name = name;
    if (!parse_decimal(fields[1], file.size) || file.size == 0 || file.size > most) {
        return "the size of " + name + " is not a number of bytes from 1 to " +
               std::to_string(most);
    }
    return parse_digest(fields[2], file.sha256)
               ? ""
               : "the SHA-256 of " + name + " is not 64 hexadecimal digits in lower case";
}

std::string take_chunked_files(std::span<const std::string_view> fields, ManifestModule& module) {
    ChunkedFiles& files = module.chunked.emplace();
    const std::string fault =
        take_file(fields.first(3), module.file + FRAMES_SUFFIX, IMAGE_SIZE_MAX, files.frames);
    return fault.empty() ? take_file(fields.subspan(3), module.file + INDEX_SUFFIX,
                                     chunk_index_size_max(module.size), files.index)
                         : fault;
}

std::string take_module(std::string_view line, Manifest& manifest) {
    const std::vector<std::string_view> fields = split_fields(line);
    const bool chunked = manifest.format == 3 && fields.size() == FIELDS_CHUNKED;
    if (!chunked && fields.size() != FIELDS) {
        return std::string("expected NAME ") + (manifest.combined() ? "OFFSET" : "FILE") +
               " SIZE SHA256" +
               (manifest.format == 3 ? ", and for a chunked image also FILE SIZE SHA256 twice"
                                     : "");
    }
    ManifestModule module = {};
    if (!is_name(fields[0], MODULE_NAME_MAX)) {
        return "the module's name is not valid";
    }
    module.name = fields[0];
    if (manifest.combined()) {
        if (!parse_decimal(fields[1], module.offset)) {
            return "the offset is not a number of bytes";
        }
    } else if (is_file_name(fields[1])) {
        module.file = fields[1];
    } else {
        return "the image's name is not a file name without a folder";
    }
    if (!parse_decimal(fields[2], module.size)) {
        return "the size is not a number of bytes";
    }
    if (!parse_digest(fields[3], module.sha256.emplace())) {
        return "the SHA-256 is not 64 hexadecimal digits in lower case";
    }
    std::string fault = check_range(module);
    if (fault.empty() && chunked) {
        fault = take_chunked_files(std::span(fields).subspan(FIELDS), module);
    }
    return fault.empty() ? add_module(manifest, module) : fault;
}

// `next` is the index of the first line of HEAD that may still follow. At the first module it
// becomes HEAD.size().
std::string take_line(std::string_view line, Manifest& manifest, size_t& next) {
    while (next < HEAD.size()) {
        const HeadLine& head = HEAD[next];
        std::string_view value;
        const bool there = has_key(line, head.key, value);
        if (there ? !head.valid(value) : head.required) {
            return head.expected;
        }
        if (there && manifest.format == 3 && head.field == &Manifest::package) {
            return "a combined package has a manifest of version 2";
        }
        ++next;
        if (there) {
            manifest.*head.field = value;
            return "";
        }
    }
    return take_module(line, manifest);
}

PackageStatus malformed(size_t line, const std::string& fault) {
    return package_fault(PACKAGE_MALFORMED,
                         line == 0 ? fault : "line " + std::to_string(line) + ": " + fault);
}

// Returns the names of the files of which the module is made, some of which may be empty.
std::array<std::string_view, 3> file_names(const ManifestModule& module) {
    std::array<std::string_view, 3> names = {module.file};
    if (module.chunked) {
        names = {module.file, module.chunked->frames.name, module.chunked->index.name};
    }
    return names;
}

bool shares_file(const ManifestModule& left, const ManifestModule& right) {
    const auto others = file_names(right);
    return std::ranges::any_of(file_names(left), [&others](std::string_view name) {
        return !name.empty() && std::ranges::find(others, name) != others.end();
    });
}

bool is_chunked(const ManifestModule& module) {
    return module.chunked.has_value();
}

std::string_view first_line(const Manifest& manifest) {
    return manifest.format == 3 ? FIRST_LINE_CHUNKED : FIRST_LINE;
}

std::string file_fields(const ManifestFile& file) {
    return ' ' + file.name + ' ' + std::to_string(file.size) + ' ' + digest_text(file.sha256);
}

}  // namespace

bool is_file_name(std::string_view text) {
    return is_name(text, FILE_NAME_MAX);
}

bool is_camera_kind(std::string_view text) {
    return is_name(text, KIND_MAX);
}

bool is_description(std::string_view text) {
    return !text.empty() && text.size() <= DESCRIPTION_MAX &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= 0x20 && c < 0x7f; });
}

std::string check_range(const ManifestModule& module) {
    if (module.size == 0) {
        return "the module is empty";
    }
    if (module.size > IMAGE_SIZE_MAX || module.offset > IMAGE_SIZE_MAX - module.size) {
        return "the module ends beyond 2 GiB";
    }
    return "";
}

std::string add_module(Manifest& manifest, const ManifestModule& module) {
    for (const ManifestModule& other : manifest.modules) {
        if (other.name == module.name) {
            return "the module is named twice";
        }
        if (shares_file(module, other)) {
            return "the image is named twice";
        }
        if (manifest.combined() && module.offset < other.offset + other.size &&
            other.offset < module.offset + module.size) {
            return "the module overlaps " + other.name;
        }
    }
    if (manifest.modules.size() == static_cast<size_t>(OTA_MSG_MAX_MODULES)) {
        return "more modules than a request can hold";
    }
    manifest.modules.push_back(module);
    return "";
}

PackageStatus parse_manifest(std::string_view text, Manifest& manifest) {
    manifest = {};
    if (text.size() > MANIFEST_SIZE_MAX) {
        return malformed(0, "longer than " + std::to_string(MANIFEST_SIZE_MAX) + " bytes");
    }
    manifest.format = !text.starts_with(MAGIC) ? 1 : text.starts_with(FIRST_LINE_CHUNKED) ? 3 : 2;
    size_t next = 0;
    size_t number = 0;
    while (!text.empty()) {
        ++number;
        const size_t end = std::min(text.find('\n'), text.size());
        const std::string_view line = text.substr(0, end);
        std::string fault;
        if (line.size() > MANIFEST_LINE_SIZE_MAX) {
            fault = "the line is too long";
        } else if (manifest.format == 1) {
            fault = take_line_v1(line, manifest);
        } else if (end == text.size()) {
            fault = "the line does not end with a line feed";
        } else if (number > 1) {
            fault = take_line(line, manifest, next);
        } else if (line != first_line(manifest)) {
            fault = "expected \"" + std::string(FIRST_LINE) + "\" or \"" +
                    std::string(FIRST_LINE_CHUNKED) + '"';
        }
        if (!fault.empty()) {
            return malformed(number, fault);
        }
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    if (manifest.modules.empty()) {
        return malformed(0, "the manifest has no modules");
    }
    // Otherwise the same package could also be described by version 2, which all cameras can read.
    return manifest.format == 3 && std::ranges::none_of(manifest.modules, is_chunked)
               ? malformed(0, "the manifest has version 3, but no chunked image")
               : PackageStatus{};
}

std::string format_manifest(const Manifest& manifest) {
    if (manifest.format == 1) {
        return format_manifest_v1(manifest);
    }
    std::string text = std::string(first_line(manifest)) + '\n';
    for (const HeadLine& head : HEAD) {
        const std::string& value = manifest.*head.field;
        if (!value.empty()) {
            text += std::string(head.key) + ' ' + value + '\n';
        }
    }
    for (const ManifestModule& module : manifest.modules) {
        text += module.name + ' ' +
                (manifest.combined() ? std::to_string(module.offset) : module.file) + ' ' +
                std::to_string(module.size) + ' ' + digest_text(module.sha256.value_or(Sha256{}));
        if (module.chunked) {
            text += file_fields(module.chunked->frames) + file_fields(module.chunked->index);
        }
        text += '\n';
    }
    return text;
}

std::string digest_text(const Sha256& digest) {
    return corvo::hex_text(digest);
}
