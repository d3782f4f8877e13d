#include "FileError.h"

#include <array>
#include <cerrno>
#include <system_error>

namespace {

constexpr std::size_t kMostShown = 200;
constexpr std::size_t kShownOfStart = 120;
constexpr std::size_t kShownOfEnd = 60;

std::string Escaped(std::string_view text) {
    constexpr std::string_view kDigits = "0123456789abcdef";
    std::string out;
    for (const char character : text) {
        const auto byte = static_cast<unsigned char>(character);
        if (byte >= ' ' && byte <= '~' && byte != '\\' && byte != '"') {
            out += character;
        } else {
            out += {'\\', 'x', kDigits[byte >> 4U], kDigits[byte & 15U]};
        }
    }
    return out;
}

}  // namespace

FileError SystemError(int number) {
    FileError error{ZFrameworkErrorCodes::ERRCODE_NONE, std::generic_category().message(number)};
    switch (number) {
        case ENOENT:
            error.code = ZFrameworkErrorCodes::ERRCODE_NOT_FOUND;
            break;
        case EISDIR:
        case ENOTDIR:
        case ELOOP:
        case ENAMETOOLONG:
            error.code = ZFrameworkErrorCodes::ERRCODE_INVALID_REQUEST;
            break;
        default:
            break;
    }
    return error;
}

FileError BadRequest(std::string reason) {
    return {ZFrameworkErrorCodes::ERRCODE_INVALID_REQUEST, std::move(reason)};
}

std::string Shown(std::string_view text) {
    if (text.size() <= kMostShown) {
        return Escaped(text);
    }
    return Escaped(text.substr(0, kShownOfStart)) + "..." + Escaped(text.substr(text.size() - kShownOfEnd));
}
