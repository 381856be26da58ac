#include "offer.h"

#include <algorithm>
#include <array>

#include "package/content.h"
#include "package/signed_manifest.h"

namespace {

// What follows, for each ActionStage and each Offer. A started upgrade is completed first, whatever
// is offered.
using enum Step;
constexpr std::array<std::array<Step, 6>, 6> STEPS = {{
    // nothing, gone, unreadable, same, other files, other action
    {POLL, POLL, REFUSE, ACCEPT, ACCEPT, ACCEPT},  // ACTION_NONE
    {DROP, POLL, REFUSE, DOWNLOAD, ACCEPT, DROP},  // ACTION_DOWNLOADING
    {DROP, POLL, POLL, COMMIT, ACCEPT, DROP},      // ACTION_WAITING
    {POLL, POLL, POLL, POLL, POLL, POLL},          // ACTION_COMMITTED
    {POLL, POLL, POLL, POLL, POLL, POLL},          // ACTION_POSTED
    {CLOSE, POLL, CLOSE, CLOSE, REMEMBER, CLOSE},  // ACTION_RESULT
}};

bool has_known_digests(const ActionRecord& action) {
    return std::ranges::none_of(action.files,
                                [](const OfferedFile& file) { return file.sha256.empty(); });
}

// Whether the files are the same, in any order.
bool has_same_files(const ActionRecord& action, const DdiAction& offer) {
    const auto was_offered = [&action](const DdiFile& file) {
        const auto found = std::ranges::find(action.files, file.name, &OfferedFile::name);
        return found != action.files.end() && found->size == file.size &&
               found->sha256 == digest_text(file.sha256);
    };
    return action.files.size() == offer.files.size() &&
           std::ranges::all_of(offer.files, was_offered);
}

}  // namespace

bool has_begun(const ActionRecord& action) {
    return action.stage == ACTION_COMMITTED || action.stage == ACTION_POSTED ||
           (action.stage == ACTION_WAITING && action.attempts > 0);
}

Offer compare_offer(const ActionRecord& action, const DdiAction& offer) {
    if (action.id != offer.id) {
        return OFFER_OTHER_ACTION;
    }
    // An older agent stored no digests. Its result is sent, because the files may be the same.
    const bool unknown = action.stage == ACTION_RESULT && !has_known_digests(action);
    return unknown || has_same_files(action, offer) ? OFFER_SAME : OFFER_OTHER_FILES;
}

Step next_step(const ActionRecord& action, Offer offer) {
    const Step step = STEPS[has_begun(action) ? ACTION_COMMITTED : action.stage][offer];
    // A package whose download alone was requested is kept until another offer replaces it.
    if (step == DROP && action.downloadOnly) {
        return offer == OFFER_NOTHING ? POLL : ACCEPT;
    }
    return step;
}

std::string id_of(const std::string& href) {
    const std::string path = href.substr(0, href.find('?'));
    return path.substr(path.rfind('/') + 1);
}

std::string offer_digest(const DdiAction& offer) {
    Sha256Stream stream;
    for (const DdiFile& file : offer.files) {
        stream.update(file.name + ' ' + std::to_string(file.size) + ' ' + digest_text(file.sha256) +
                      '\n');
    }
    return digest_text(stream.take());
}

const DdiFile* find_file(const DdiAction& offer, const std::string& name) {
    const auto found = std::ranges::find(offer.files, name, &DdiFile::name);
    return found == offer.files.end() ? nullptr : &*found;
}

const DdiFile* find_manifest(const DdiAction& offer) {
    const DdiFile* manifest = nullptr;
    for (const DdiFile& file : offer.files) {
        if (find_file(offer, file.name + SIGNATURE_SUFFIX) == nullptr) {
            continue;
        }
        if (manifest != nullptr) {
            return nullptr;
        }
        manifest = &file;
    }
    return manifest;
}

void take_files(const DdiAction& offer, ActionRecord& action) {
    action.id = offer.id;
    for (const DdiFile& file : offer.files) {
        action.files.push_back(
            {.name = file.name, .size = file.size, .sha256 = digest_text(file.sha256)});
    }
    const DdiFile* const manifest = find_manifest(offer);
    action.manifestFile = manifest == nullptr ? "" : manifest->name;
    action.module = manifest == nullptr ? "" : manifest->module;
}
