// Reads a program's configuration file, in which each option is a setting under the same name. As
// command_line.h, for a program's main.cpp only.
#ifndef CLI_SETTINGS_FILE_H
#define CLI_SETTINGS_FILE_H

#include <algorithm>
#include <string>
#include <vector>

#include "cli/command_line.h"

// A value is everything after "=": a command with arguments needs no quotation marks. Finds
// settings without a value, which the parser would treat as not given.
class SettingsFile : public CLI::ConfigBase {
  public:
    // `emptySetting` receives the name of a setting without a value.
    explicit SettingsFile(std::string& emptySetting) : emptySetting_(emptySetting) {
        // Without the parser's lists, whose elements have spaces or commas between them.
        arrayBounds('\1', '\2')->arrayDelimiter('\3');
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

// Finds an option that was given an empty value on the command line or in the file. Leaves `name`
// as it is if there is none.
inline void find_empty_option(const CLI::App& app, std::string& name) {
    for (const CLI::Option* option : app.get_options()) {
        if (std::ranges::count(option->results(), "") > 0) {
            name = option->get_lnames().front();
        }
    }
}

#endif  // CLI_SETTINGS_FILE_H
