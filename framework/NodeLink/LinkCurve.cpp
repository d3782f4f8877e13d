#include "NodeLink/LinkCurve.h"

#include <sodium.h>

#include <algorithm>
#include <array>

namespace {

using Nonce = std::array<std::uint8_t, crypto_box_NONCEBYTES>;
constexpr std::size_t kMac = crypto_box_MACBYTES;
constexpr std::size_t kKey = crypto_box_PUBLICKEYBYTES;
constexpr std::size_t kCounter = 8;
constexpr std::size_t kLongNonce = 16;
constexpr std::size_t kCookie = 96;
constexpr std::size_t kHello = 200;
constexpr std::size_t kVouch = kLongNonce + kMac + 2 * kKey;
constexpr std::string_view kMessageName("\x07MESSAGE");
constexpr std::string_view kErrorName(
    "\x05"
    "ERROR");
static_assert(LinkCurve::kOverhead == kMessageName.size() + kCounter + kMac + 1);

const std::uint8_t* Bytes(std::string_view text) {
    return reinterpret_cast<const std::uint8_t*>(text.data());
}
std::uint8_t* Bytes(char* text) {
    return reinterpret_cast<std::uint8_t*>(text);
}
std::string_view Text(const LinkKeyBytes& key) {
    return {reinterpret_cast<const char*>(key.data()), key.size()};
}
LinkKeyBytes KeyIn(std::string_view text) {
    LinkKeyBytes key{};
    std::copy_n(Bytes(text), key.size(), key.begin());
    return key;
}

Nonce MakeNonce(std::string_view prefix, std::string_view rest) {
    Nonce nonce{};
    std::ranges::copy(rest, std::ranges::copy(prefix, nonce.begin()).out);
    return nonce;
}

std::string CounterText(std::uint64_t counter) {
    std::string text(kCounter, '\0');
    for (std::size_t place = kCounter; place > 0; counter >>= 8U) {
        text[--place] = static_cast<char>(counter & 0xFFU);
    }
    return text;
}

std::string Random(std::size_t size) {
    std::string text(size, '\0');
    ::randombytes_buf(text.data(), size);
    return text;
}

std::string Box(std::string_view content, const Nonce& nonce, const LinkKeyBytes& to, const LinkKeyBytes& from) {
    std::string box(content.size() + kMac, '\0');
    if (::crypto_box_easy(Bytes(box.data()), Bytes(content), content.size(), nonce.data(), to.data(), from.data()) !=
        0) {
        box.assign(box.size(), '\0');  // the key is not one of the curve: nobody can open this
    }
    return box;
}

std::optional<std::string> Unbox(std::string_view box, const Nonce& nonce, const LinkKeyBytes& from,
                                 const LinkKeyBytes& to) {
    std::string content(box.size() - std::min(box.size(), kMac), '\0');
    if (box.size() < kMac || ::crypto_box_open_easy(Bytes(content.data()), Bytes(box), box.size(), nonce.data(),
                                                    from.data(), to.data()) != 0) {
        return std::nullopt;
    }
    return content;
}

/// What each side tells about its socket. The protocol wants it; nothing here depends on it.
std::string Metadata(LinkCurve::Side side) {
    using namespace std::string_literals;
    return side == LinkCurve::Side::Caller ? "\x0BSocket-Type\0\0\0\x06"
                                             "DEALER\x08Identity\0\0\0\0"s
                                           : "\x0BSocket-Type\0\0\0\x06ROUTER\x08Identity\0\0\0\0"s;
}

}  // namespace

LinkCurve::LinkCurve(Side side, const LinkKeyPair& own, const std::string& peerKey)
    : m_side(side),
      m_ownKey(LinkKeyFrom(own.publicKey).value_or(LinkKeyBytes{})),
      m_ownSecret(own.secretKey),
      m_peerKey(LinkKeyFrom(peerKey).value_or(LinkKeyBytes{})),
      m_state(side == Side::Caller ? State::Begins : State::Waits) {
    ::crypto_box_keypair(m_key.data(), m_secret.data());
}

std::string LinkCurve::Begin() {
    m_state = State::Waits;
    const std::string counter = CounterText(++m_sent);
    std::string hello("\x05HELLO\x01", 7);
    hello.append(1 + 72, '\0').append(Text(m_key)).append(counter);
    return hello += Box(std::string(64, '\0'), MakeNonce("CurveZMQHELLO---", counter), m_peerKey, m_secret);
}

std::optional<std::string> LinkCurve::Take(std::string_view command) {
    std::string reply;
    bool fits = false;
    if (m_state != State::Waits) {
        return std::nullopt;
    }
    if (m_side == Side::Listener) {
        if (m_cookie.empty()) {
            fits = !(reply = Welcome(command)).empty();
        } else {
            fits = TakeInitiate(command);
        }
    } else if (m_cookie.empty()) {
        fits = !(reply = Initiate(command)).empty();
    } else if (command.starts_with(kErrorName)) {  // of who has the key: it has welcomed this side
        m_state = State::Refused;
        fits = true;
    } else {
        fits = TakeReady(command);
    }
    return fits ? std::optional(std::move(reply)) : std::nullopt;
}

std::string LinkCurve::Welcome(std::string_view hello) {
    if (hello.size() != kHello || !hello.starts_with("\x05HELLO\x01")) {
        return {};
    }
    m_peerConnectionKey = KeyIn(hello.substr(80));
    const auto counter = hello.substr(112, kCounter);
    if (!IsNext(counter) ||
        !Unbox(hello.substr(120), MakeNonce("CurveZMQHELLO---", counter), m_peerConnectionKey, m_ownSecret)) {
        return {};
    }
    // The protocol lets a listener hand its state out in the cookie. This one keeps it: connections are few.
    m_cookie = Random(kCookie);
    const std::string nonce = Random(kLongNonce);
    return "\x07WELCOME" + nonce +
           Box(std::string(Text(m_key)) + m_cookie, MakeNonce("WELCOME-", nonce), m_peerConnectionKey, m_ownSecret);
}

std::string LinkCurve::Initiate(std::string_view welcome) {
    constexpr std::size_t kName = 8;
    if (welcome.size() != kName + kLongNonce + kMac + kKey + kCookie || !welcome.starts_with("\x07WELCOME")) {
        return {};
    }
    const auto content = Unbox(welcome.substr(kName + kLongNonce),
                               MakeNonce("WELCOME-", welcome.substr(kName, kLongNonce)), m_peerKey, m_secret);
    if (!content) {
        return {};
    }
    m_peerConnectionKey = KeyIn(*content);
    m_cookie = content->substr(kKey);
    const std::string nonce = Random(kLongNonce);
    std::string told(Text(m_ownKey));
    told += nonce + Box(std::string(Text(m_key)) + std::string(Text(m_peerKey)), MakeNonce("VOUCH---", nonce),
                        m_peerConnectionKey, m_ownSecret);
    told += Metadata(m_side);
    const std::string counter = CounterText(++m_sent);
    return "\x08INITIATE" + m_cookie + counter +
           Box(told, MakeNonce("CurveZMQINITIATE", counter), m_peerConnectionKey, m_secret);
}

bool LinkCurve::TakeInitiate(std::string_view initiate) {
    constexpr std::size_t kName = 9;
    if (initiate.size() < kName + kCookie + kCounter || !initiate.starts_with("\x08INITIATE") ||
        ::sodium_memcmp(initiate.data() + kName, m_cookie.data(), kCookie) != 0) {
        return false;
    }
    const auto counter = initiate.substr(kName + kCookie, kCounter);
    const auto told = Unbox(initiate.substr(kName + kCookie + kCounter), MakeNonce("CurveZMQINITIATE", counter),
                            m_peerConnectionKey, m_secret);
    if (!IsNext(counter) || !told || told->size() < kKey + kVouch) {
        return false;
    }
    m_peerKey = KeyIn(*told);
    const auto vouch = std::string_view(*told).substr(kKey, kVouch);
    const auto vouched =
        Unbox(vouch.substr(kLongNonce), MakeNonce("VOUCH---", vouch.substr(0, kLongNonce)), m_peerKey, m_secret);
    if (!vouched || *vouched != std::string(Text(m_peerConnectionKey)) + std::string(Text(m_ownKey))) {
        return false;
    }
    m_state = State::Asks;
    return true;
}

std::string LinkCurve::Admit() {
    const std::string counter = CounterText(++m_sent);
    m_state = ::crypto_box_beforenm(m_shared.data(), m_peerConnectionKey.data(), m_secret.data()) == 0 ? State::Open
                                                                                                       : State::Refused;
    return "\x05READY" + counter +
           Box(Metadata(m_side), MakeNonce("CurveZMQREADY---", counter), m_peerConnectionKey, m_secret);
}

std::string LinkCurve::Refuse() {
    m_state = State::Refused;
    return std::string(kErrorName) + "\x03" + "400";
}

bool LinkCurve::TakeReady(std::string_view ready) {
    constexpr std::size_t kName = 6;
    if (ready.size() < kName + kCounter || !ready.starts_with("\x05READY")) {
        return false;
    }
    const auto counter = ready.substr(kName, kCounter);
    if (!IsNext(counter) ||
        !Unbox(ready.substr(kName + kCounter), MakeNonce("CurveZMQREADY---", counter), m_peerConnectionKey, m_secret)) {
        return false;
    }
    const bool fits = ::crypto_box_beforenm(m_shared.data(), m_peerConnectionKey.data(), m_secret.data()) == 0;
    m_state = fits ? State::Open : State::Waits;
    return fits;
}

bool LinkCurve::IsNext(std::string_view counter) {
    std::uint64_t number = 0;
    for (const char byte : counter) {
        number = number << 8U | static_cast<std::uint8_t>(byte);
    }
    const bool isNext = number > m_received;
    m_received = std::max(number, m_received);
    return isNext;
}

void LinkCurve::Seal(std::uint8_t flags, std::string_view content, char* body) {
    const std::string counter = CounterText(++m_sent);
    const auto nonce = MakeNonce(m_side == Side::Caller ? "CurveZMQMESSAGEC" : "CurveZMQMESSAGES", counter);
    char* const box = std::ranges::copy(counter, std::ranges::copy(kMessageName, body).out).out;
    char* const plain = box + kMac;  // it is enciphered where it stands
    *plain = static_cast<char>(flags);
    std::ranges::copy(content, plain + 1);
    static_cast<void>(
        ::crypto_box_easy_afternm(Bytes(box), Bytes(plain), content.size() + 1, nonce.data(), m_shared.data()));
}

std::optional<std::uint8_t> LinkCurve::Unseal(std::string_view body, char* content) {
    if (body.size() < kOverhead || !body.starts_with(kMessageName)) {
        return std::nullopt;
    }
    const auto counter = body.substr(kMessageName.size(), kCounter);
    const auto nonce = MakeNonce(m_side == Side::Caller ? "CurveZMQMESSAGES" : "CurveZMQMESSAGEC", counter);
    const auto box = body.substr(kMessageName.size() + kCounter);
    if (::crypto_box_open_easy_afternm(Bytes(content), Bytes(box), box.size(), nonce.data(), m_shared.data()) != 0 ||
        !IsNext(counter)) {
        return std::nullopt;
    }
    return static_cast<std::uint8_t>(*content);
}
