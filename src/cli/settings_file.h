// Reads a program's configuration file, in which each option is a setting under the same name. As
// command_line.h, for a program's main.cpp only.
#ifndef CLI_SETTINGS_FILE_H
#define CLI_SETTINGS_FILE_H

#include <algorithm>
#include <string>
#include <vector>

#include "cli/command_line.h"

// The form of a value, which is the text after "=" in a line of the file.
enum class FileValues {
    LISTS,  // one value, or several as ["a", "b"]; quotation marks are removed
    PLAIN,  // always one value: a command with arguments needs no quotation marks
};

// Parses the file and finds settings without a value. The parser treats these as not given, which
// could silently turn a check off.
class SettingsFile : public CLI::ConfigBase {
  public:
    // `emptySetting` receives the name of a setting without a value.
    SettingsFile(FileValues values, std::string& emptySetting) : emptySetting_(emptySetting) {
        if (values == FileValues::PLAIN) {
            arrayBounds('\1', '\2')->arrayDelimiter('\3');  // characters that no file contains
        }
    }
    std::vector<CLI::ConfigItem> from_config(std::istream& input) const override {
        std::vector<CLI::ConfigItem> settings = CLI::ConfigBase::from_config(input);
        for (const CLI::ConfigItem& item : settings) {
            if (item.inputs.empty() || std::ranges::count(item.inputs, "") > 0) {
                emptySetting_ = item.fullname();
            }
        }
        return settings;
    }

  private:
    std::string& emptySetting_;
};

// Sets `name` to the name of an option that was given an empty value on the command line or in the
// file. If every option has a value, `name` keeps what SettingsFile has stored in it.
inline void find_empty_option(const CLI::App& app, std::string& name) {
    for (const CLI::Option* option : app.get_options()) {
        if (std::ranges::count(option->results(), "") > 0) {
            name = option->get_lnames().front();
        }
    }
}

#endif  // CLI_SETTINGS_FILE_H
