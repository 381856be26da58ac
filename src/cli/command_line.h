// Parses the arguments of the companion programs. Every wrong argument is reported as one line on
// standard error, with one exit status. Include this header in a program's main.cpp only, which
// gets it precompiled: the parser's header takes longer to compile than most programs.
#ifndef CLI_COMMAND_LINE_H
#define CLI_COMMAND_LINE_H

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <exception>
#include <new>
#include <optional>
#include <string>

#include "base/standard_descriptors.h"
#include "base/version.h"
#include "cli/error_line.h"

// Parses the arguments, and adds the option "--version". Returns the exit status if the program
// must exit now (help or version was requested, or the arguments are wrong), otherwise nothing.
inline std::optional<int> parse_command_line(CLI::App& app, int argc, char** argv) {
    app.set_version_flag("--version", app.get_name() + " " CORVO_VERSION,
                         "Print the version and exit");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) {
            return app.exit(error);
        }
        print_error(app.get_name().c_str(), std::string(error.what()) + " (see --help)");
        return EXIT_WRONG_USE;
    }
    return std::nullopt;
}

// Runs a program's body with all three standard descriptors open. An exception, which means that
// memory or threads ran out, is also reported as one line, even where it cannot be caught.
template <typename Body>
int run_guarded(const char* program, Body body) {
    corvo::occupy_standard_descriptors();
    // CLI11 allocates in functions that it declares noexcept.
    static const char* name = program;
    std::set_terminate([] {
        fprintf(stderr, "%s: out of memory\n", name);
        _exit(EXIT_FAILURE);
    });
    try {
        return body();
    } catch (const std::bad_alloc&) {
        fprintf(stderr, "%s: out of memory\n", program);
        return EXIT_FAILURE;
    } catch (const std::exception& error) {
        fprintf(stderr, "%s: %s\n", program, error.what());
        return EXIT_FAILURE;
    }
}

#endif  // CLI_COMMAND_LINE_H
