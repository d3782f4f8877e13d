#include "ZShared/ZError.h"

#include <stdexcept>
#include <system_error>

ZError ZError::OfSystem(const std::string& thing, int errorNumber) {
    return ZError(thing + ": " + std::generic_category().message(errorNumber));
}

void throw_exception_from_error(const ZError& error, const boost::source_location&) {
    throw std::runtime_error(error.text);
}
