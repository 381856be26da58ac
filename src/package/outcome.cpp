#include "package/outcome.h"

#include <stdint.h>

namespace {

uint8_t value_of(std::string_view content, uint32_t key) {
    return key < content.size() ? static_cast<uint8_t>(content[key]) : uint8_t{0};
}

const char* result_words(uint8_t result) {
    switch (result) {
        case 0:
            return "no upgrade yet";
        case OTA_RESULT_SUCCEEDED:
            return "the last upgrade succeeded";
        case OTA_RESULT_NOT_SUCCEEDED:
            return "the last upgrade failed or has not finished";
        default:
            return "unknown";
    }
}

const char* state_words(uint8_t state) {
    switch (state) {
        case 0:
            return "no verdict yet";
        case OTA_STATE_SUCCESS:
            return "success";
        case OTA_STATE_FAILURE:
            return "failure";
        case OTA_STATE_AUTO_FLASH_SUCCESS:
            return "success in auto-flash mode";
        default:
            return "unknown";
    }
}

}  // namespace

Outcome read_outcome(std::string_view content) {
    const uint8_t result = value_of(content, OTA_DATA_KEY_RESULT);
    const uint8_t state = value_of(content, OTA_DATA_KEY_STATE);
    const bool whole = content.size() == OTA_DATA_KEY_COUNT;
    if (whole && result == 0) {
        return Outcome::NONE;
    }
    // The service writes the two bytes one after the other, so they may contradict each other.
    if (whole && result == OTA_RESULT_SUCCEEDED &&
        (state == OTA_STATE_SUCCESS || state == OTA_STATE_AUTO_FLASH_SUCCESS)) {
        return Outcome::SUCCEEDED;
    }
    if (whole && result == OTA_RESULT_NOT_SUCCEEDED && state == OTA_STATE_FAILURE) {
        return Outcome::FAILED;
    }
    return Outcome::UNFINISHED;
}

std::string outcome_words(std::string_view content) {
    return std::string(result_words(value_of(content, OTA_DATA_KEY_RESULT))) + ", state " +
           state_words(value_of(content, OTA_DATA_KEY_STATE));
}

std::string describe_outcome(std::string_view content) {
    const uint8_t result = value_of(content, OTA_DATA_KEY_RESULT);
    const uint8_t state = value_of(content, OTA_DATA_KEY_STATE);
    std::string text = "result: " + std::to_string(result) + ", " + result_words(result) +
                       "\nstate:  " + std::to_string(state) + ", " + state_words(state) +
                       "\nother keys:";
    for (uint32_t key = 0; key < OTA_DATA_KEY_COUNT; ++key) {
        if (key != OTA_DATA_KEY_RESULT && key != OTA_DATA_KEY_STATE) {
            text += ' ' + std::to_string(key) + '=' + std::to_string(value_of(content, key));
        }
    }
    text += '\n';
    if (content.size() != OTA_DATA_KEY_COUNT) {
        text += "the file has " + std::to_string(content.size()) + " bytes instead of " +
                std::to_string(OTA_DATA_KEY_COUNT) + "\n";
    }
    return text;
}
