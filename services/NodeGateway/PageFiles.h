#pragma once

#include <filesystem>
#include <map>
#include <string>

#include "http/HttpMessage.h"

namespace gateway {

/// The page for people: its files, held in memory. They are no secret, and the same for everybody; what the page shows
/// it asks for, as every client does. Thread-safe.
class PageFiles {
public:
    /// The files of a folder, as far as they are of a kind that a page is made of. An empty name means the folder that
    /// was installed beside this library. Where there is no "index.html" there is no page; the log says why.
    static PageFiles Read(const std::string& folder);

    bool IsEmpty() const { return m_files.empty(); }
    bool Has(std::string_view path) const { return m_files.contains(path); }
    /// The file of a path that there is; 304 when the asker has it already.
    HttpResponse Answer(const HttpRequest& request) const;

private:
    struct File {
        const char* type = "";
        std::string bytes;
        std::string gzip;  ///< likewise, compressed; empty: there is none
        std::string tag;
    };
    static std::map<std::string, File, std::less<>> Load(const std::filesystem::path& folder);

    std::map<std::string, File, std::less<>> m_files;  ///< by path, as "/app.js"
};

}  // namespace gateway
