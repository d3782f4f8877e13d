#include "FileError.h"

#include <array>
#include <cerrno>
#include <system_error>

#include "text/Escape.h"

namespace {

constexpr std::size_t kMostShown = 200;
constexpr std::size_t kShownOfStart = 120;
constexpr std::size_t kShownOfEnd = 60;

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
        return text::Escaped(text);
    }
    return text::Escaped(text.substr(0, kShownOfStart)) + "..." + text::Escaped(text.substr(text.size() - kShownOfEnd));
}
