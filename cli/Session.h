#pragma once

#include <boost/json.hpp>
#include <cstddef>
#include <iosfwd>
#include <string>

#include "GatewayClient.h"
#include "Result.h"

namespace arborctl {

/// What every command works with: the device, how to reach it, and where its output goes. One thread.
struct Session {
    Settings settings;
    GatewayClient gateway;
    std::ostream& out;
    std::ostream& err;

    Session(Settings chosen, std::ostream& output, std::ostream& errors)
        : settings(std::move(chosen)), gateway(settings), out(output), err(errors) {}

    /// The document on one line, complete at once for a reader at the other end of a pipe.
    void PrintJson(const boost::json::value& document);

    /// A document for machines, or else a text for people.
    void Print(const boost::json::value& document, const std::string& text);

    /// A remark for people that is no part of the result.
    void Note(const std::string& text);

    /// Tells why the command failed (with --json also as a document {"error", "exitCode"}, unless it was the user's own
    /// wish) and gives the exit status.
    int Fail(const Failure& failure);

    /// A command whose answer is no: the device's document for machines, or else `text` where errors go.
    ExitCode Refuse(const boost::json::value& document, const std::string& text);

    /// False once nobody reads the output any more ("| head" has ended): a command that would go on for ever should
    /// end.
    [[nodiscard]] bool HasReader() const;

    /// The exit status that belongs to a command's result.
    int Finish(const Result<ExitCode>& result);
};

/// False once the other end of the pipe that the standard output is has been closed.
bool OutputHasReader();

/// Columns of the terminal that the standard output is; 0 when it is none.
std::size_t OutputColumns();

}  // namespace arborctl
