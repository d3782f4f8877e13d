#pragma once

#include <boost/asio/ssl/context.hpp>
#include <memory>

#include "ZShared/ZError.h"

namespace gateway {

/// What a TLS server needs: version 1.2 or 1.3, this certificate and its key, both PEM. An error names the file.
ZResult<std::unique_ptr<boost::asio::ssl::context>> MakeTlsContext(const std::string& certificateFile,
                                                                   const std::string& privateKeyFile);

}  // namespace gateway
