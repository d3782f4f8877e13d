#include "http/TlsContext.h"

#include <openssl/crypto.h>
#include <openssl/ssl.h>

#include <boost/asio/buffer.hpp>

#include "ZShared/ZScopeEnd.h"
#include "http/SecretFile.h"

namespace gateway {

namespace {

namespace asio = boost::asio;
using Context = asio::ssl::context;

void SetUp(Context& context) {
    SSL_CTX* const handle = context.native_handle();
    ::SSL_CTX_set_min_proto_version(handle, TLS1_2_VERSION);
    ::SSL_CTX_set_options(handle, SSL_OP_NO_RENEGOTIATION | SSL_OP_NO_COMPRESSION | SSL_OP_CIPHER_SERVER_PREFERENCE);
    ::SSL_CTX_set_session_cache_mode(handle, SSL_SESS_CACHE_OFF);
    ::SSL_CTX_set_mode(handle, SSL_MODE_RELEASE_BUFFERS);  // of streams that are silent
    // A key with a password would have it asked for on the terminal, for ever.
    context.set_password_callback([](std::size_t, Context::password_purpose) { return std::string(); });
}

}  // namespace

ZResult<std::unique_ptr<Context>> MakeTlsContext(const std::string& certificateFile,
                                                 const std::string& privateKeyFile) {
    const auto certificate = ReadSmallFile(certificateFile);
    if (!certificate) {
        return certificate.error();
    }
    auto key = ReadSecretFile(privateKeyFile);
    if (!key) {
        return key.error();
    }
    const ZScopeEnd wipe([&] { ::OPENSSL_cleanse(key->data(), key->size()); });
    auto context = std::make_unique<Context>(Context::tls_server);
    SetUp(*context);
    boost::system::error_code failure;
    if (context->use_certificate_chain(asio::buffer(*certificate), failure); failure) {
        return ZError("it is not a certificate that can be used: " + failure.message()).In(certificateFile);
    }
    if (context->use_private_key(asio::buffer(*key), Context::pem, failure);
        failure || ::SSL_CTX_check_private_key(context->native_handle()) != 1) {
        return ZError("it is not the certificate's key, or has a password").In(privateKeyFile);
    }
    return context;
}

}  // namespace gateway
