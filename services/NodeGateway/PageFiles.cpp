#include "PageFiles.h"

#include <dlfcn.h>
#include <openssl/sha.h>

#include <array>
#include <fstream>

#include "http/GatewayLog.h"
#include "text/Hex.h"

namespace fs = std::filesystem;

namespace gateway {

namespace {

constexpr std::size_t kMostFiles = 64;
constexpr std::size_t kLargestFile = std::size_t{256} * 1024;
constexpr std::size_t kTagBytes = 12;  // of a digest
constexpr std::string_view kIndex = "index.html";
constexpr int kLevels = 4;  // usr/lib/MACHINE/arbor
constexpr std::string_view kPacked = ".gz";

// Nothing but the page's own files, and nothing written into it: a name of a file or a reason that somebody else wrote
// can't become a program. No other page may show this one in a frame, and so have its buttons pressed.
constexpr const char* kPolicy = "default-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'";

constexpr std::pair<std::string_view, const char*> kTypes[] = {
    {".html", "text/html; charset=utf-8"},         {".css", "text/css; charset=utf-8"},
    {".js", "text/javascript; charset=utf-8"},     {".svg", "image/svg+xml"},
    {".webmanifest", "application/manifest+json"},
};

/// Null for a file that no page is made of.
const char* TypeOf(const fs::path& file) {
    for (const auto& [ending, type] : kTypes) {
        if (file.extension() == ending) {
            return type;
        }
    }
    return nullptr;
}

/// "share/arbor-install/page" of the build or installation that this library belongs to: the first of the folders above
/// it that has one. Not of any folder above: those may be anybody's.
fs::path InstalledFolder() {
    Dl_info library{};
    if (::dladdr(reinterpret_cast<const void*>(&InstalledFolder), &library) == 0) {
        return {};
    }
    std::error_code error;
    fs::path above = fs::canonical(library.dli_fname, error).parent_path();
    for (int level = 0; level < kLevels; ++level, above = above.parent_path()) {
        fs::path folder = above / "share/arbor-install/page";
        if (fs::exists(folder / kIndex, error)) {
            return folder;
        }
    }
    return {};
}

/// Empty when it can't be read, or is too large.
std::string BytesOf(const fs::path& file) {
    std::error_code error;
    if (fs::file_size(file, error) > kLargestFile || error) {
        return {};
    }
    std::ifstream stream(file, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

std::string TagOf(std::string_view bytes) {
    std::array<unsigned char, SHA256_DIGEST_LENGTH> digest{};
    ::SHA256(reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(), digest.data());
    return '"' + text::HexDigits(std::span(digest).first(kTagBytes)) + '"';
}

}  // namespace

PageFiles PageFiles::Read(const std::string& folder) {
    PageFiles page;
    const fs::path from = folder.empty() ? InstalledFolder() : fs::path(folder);
    std::error_code error;
    if (from.empty() || !fs::exists(from / kIndex, error)) {
        Z_LOG(folder.empty() ? 2 : 3, "There is no page: no %s in %s", kIndex,
              from.empty() ? "a folder share/arbor-install/page above this library" : from.string());
        return page;
    }
    page.m_files = Load(from);
    return page;
}

std::map<std::string, PageFiles::File, std::less<>> PageFiles::Load(const fs::path& folder) {
    std::map<std::string, File, std::less<>> files;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(folder, error)) {
        File file{.type = TypeOf(entry.path()), .bytes = {}, .gzip = {}, .tag = {}};
        if (file.type == nullptr || files.size() >= kMostFiles) {
            continue;
        }
        file.bytes = BytesOf(entry.path());
        if (file.bytes.empty()) {
            Z_LOG(3, "The page's file %s can't be read, is empty or too large", entry.path());
            continue;
        }
        file.gzip = BytesOf(entry.path().string() + std::string(kPacked));
        file.tag = TagOf(file.bytes);
        files.emplace("/" + entry.path().filename().string(), std::move(file));
    }
    if (const auto index = files.find("/" + std::string(kIndex)); index != files.end()) {
        files.emplace("/", index->second);
    }
    return files;
}

HttpResponse PageFiles::Answer(const HttpRequest& request) const {
    const File& file = m_files.find(request.path)->second;
    HttpResponse response;
    response.contentType = file.type;
    response.headers = {
        {"Content-Security-Policy", kPolicy}, {"X-Content-Type-Options", "nosniff"},
        {"Referrer-Policy", "no-referrer"},   {"Cache-Control", "no-cache"},  // kept, and asked about each time
        {"Vary", "Accept-Encoding"},          {"ETag", file.tag}};
    if (request.knownTag.find(file.tag) != std::string::npos) {
        response.status = 304;
    } else if (request.takesGzip && !file.gzip.empty()) {
        response.headers.emplace_back("Content-Encoding", "gzip");
        response.body = file.gzip;
    } else {
        response.body = file.bytes;
    }
    return response;
}

}  // namespace gateway
