#pragma once

#include <boost/json.hpp>
#include <cstdint>
#include <string>

namespace arborctl {

/// A job of the device, as the document that it gives of one (ZOperationMsg). Texts are as they came, unescaped.
struct Job {
    std::string id;
    std::string parent;
    std::string kind;   ///< "Install", "RemoteInstall"
    std::string state;  ///< "Running", "Lost"
    std::string version;
    std::string file;
    std::string device;
    std::string asker;
    std::string node;
    std::string header;
    std::string message;
    std::string reason;
    std::string errorCode;
    int percent = 0;
    // Milliseconds since 1970; 0: not yet.
    std::int64_t createdAt = 0;
    std::int64_t startedAt = 0;
    std::int64_t endedAt = 0;
    std::int64_t took = 0;  ///< milliseconds, so far for one that runs; 0: not known

    static Job From(const boost::json::value& document);

    [[nodiscard]] bool HasEnded() const;
    [[nodiscard]] bool Succeeded() const { return state == "Succeeded"; }

    /// "remote-install": a kind or a state as it is shown, and as options take it.
    [[nodiscard]] std::string KindWord() const;
    [[nodiscard]] std::string StateWord() const;
    /// What it works on: "3.046 to 4711", "/media/usb1/a.pkg (3.046)".
    [[nodiscard]] std::string What() const;
    /// "install 3.046".
    [[nodiscard]] std::string Title() const;
    /// How far it is: "Install: Write, 44 %"; empty when it has told nothing yet.
    [[nodiscard]] std::string Stage() const;
    /// Why it ended as it did, in a sentence; empty for one that succeeded or has not ended.
    [[nodiscard]] std::string Why() const;
    /// How long it took, or has been at work; empty before it started, and when nobody knows.
    [[nodiscard]] std::string Duration() const;
    /// The front of the id, as people type it.
    [[nodiscard]] std::string ShortId() const { return id.substr(0, 8); }
};

}  // namespace arborctl
