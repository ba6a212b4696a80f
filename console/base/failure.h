// How the console fails: one exception that ends the command, reported to the user in one line.
#pragma once

#include <stdexcept>
#include <string>

namespace qorctl {

enum ExitCode { EXIT_ANSWER = 0, EXIT_NO_ANSWER = 1, EXIT_USAGE = 2 };

// `what` says what went wrong, `hint` what to do next; either is one line of plain text.
struct Failure : std::runtime_error {
    Failure(const std::string &what, std::string what_next, ExitCode exit_code = EXIT_NO_ANSWER)
        : std::runtime_error(what), hint(std::move(what_next)), code(exit_code) {}

    std::string hint;
    ExitCode code;
};

} // namespace qorctl
