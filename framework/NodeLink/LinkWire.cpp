#include "NodeLink/LinkWire.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace {

constexpr std::size_t kGreeting = 64;
constexpr std::size_t kMechanismPlace = 12;
constexpr std::size_t kMechanismSize = 20;
constexpr std::size_t kSidePlace = 32;
constexpr std::string_view kSignature("\xFF\0\0\0\0\0\0\0\0\x7F", 10);
constexpr std::string_view kMechanism("CURVE\0\0\0\0\0\0\0\0\0\0\0\0\0\0\0", kMechanismSize);

constexpr std::uint8_t kLongFlag = 2;  // of a frame: its size has eight bytes instead of one
constexpr std::uint8_t kCommandFlag = 4;
constexpr std::size_t kShortHead = 2;
constexpr std::size_t kLongHead = 9;

constexpr std::size_t kStrangersRoom = 2048;  // the longest of the handshake's frames has some 300 bytes
constexpr std::size_t kUsualRoom = 2 * kLinkPiece;
constexpr std::size_t kLongestFrame = kLongestLinkFrame + LinkCurve::kOverhead;
constexpr std::size_t kMostHeld = kLongestLinkMessage + (std::size_t{1} << 20U);
constexpr std::size_t kMostUnsent = 65536;

constexpr std::string_view kPing("\x04PING");
constexpr std::string_view kPong("\x04PONG");
constexpr std::size_t kPingLife = 2;  // bytes, in which the other side says how long it waits
constexpr std::size_t kLongestPing = 16;
constexpr const char* kForeign = "it does not speak as a device of this kind does";

std::string Greeting(LinkCurve::Side side) {
    std::string greeting(kGreeting, '\0');
    greeting.replace(0, kSignature.size(), kSignature);
    greeting[kSignature.size()] = 3;
    greeting[kSignature.size() + 1] = 1;
    greeting.replace(kMechanismPlace, kMechanismSize, kMechanism);
    greeting[kSidePlace] = side == LinkCurve::Side::Listener ? 1 : 0;
    return greeting;
}

void PutHead(std::uint8_t flags, std::size_t size, std::string& output) {
    const bool isLong = size > 0xFF;
    output += static_cast<char>(flags | (isLong ? kLongFlag : 0));
    for (int byte = isLong ? 7 : 0; byte >= 0; --byte) {
        output += static_cast<char>(size >> (8U * static_cast<unsigned>(byte)) & 0xFFU);
    }
}

}  // namespace

LinkWire::LinkWire(LinkCurve::Side side, const LinkKeyPair& own, const std::string& peerKey)
    : m_curve(side, own, peerKey), m_input(kStrangersRoom, '\0'), m_output(Greeting(side)) {}

std::span<char> LinkWire::Room() {
    if (m_begin > 0) {
        std::memmove(m_input.data(), m_input.data() + m_begin, m_end - m_begin);
        m_end -= std::exchange(m_begin, 0);
    }
    if (IsOpen() && (m_input.size() < kUsualRoom || (m_end == 0 && m_input.size() > kUsualRoom))) {
        m_input.resize(kUsualRoom);
        m_input.shrink_to_fit();
    } else if (m_end == m_input.size()) {
        m_input.resize(2 * m_input.size());  // a frame is whole before that is much
    }
    // Not more at once, however large a frame has made it: all that came is dealt with before others have their turn.
    return std::span(m_input).subspan(m_end, std::min(m_input.size() - m_end, kUsualRoom));
}

LinkWire::News LinkWire::Next() {
    while (m_problem.empty() && m_curve.GetState() != LinkCurve::State::Asks &&
           m_curve.GetState() != LinkCurve::State::Refused) {
        if (!m_greeted) {
            if (const News news = TakeGreeting(); !m_greeted) {
                return news;
            }
        }
        const auto body = TakeBody();
        if (!body) {
            return m_problem.empty() ? News::None : News::Failed;
        }
        if (const News news = IsOpen() ? TakeSealed(*body) : TakeHandshake(*body); news != News::None) {
            return news;
        }
    }
    return News::None;
}

LinkWire::News LinkWire::TakeGreeting() {
    const std::string_view got(m_input.data() + m_begin, m_end - m_begin);
    const auto agrees = [&got](std::size_t place, std::string_view wanted) {
        const auto part = got.substr(std::min(place, got.size()), wanted.size());
        return part == wanted.substr(0, part.size());
    };
    // The signature's bytes between the first and the last may be anything.
    if (!agrees(0, kSignature.substr(0, 1)) || !agrees(kSignature.size() - 1, kSignature.substr(9)) ||
        (got.size() > kSignature.size() && got[kSignature.size()] < 3) || !agrees(kMechanismPlace, kMechanism)) {
        return Fail(kForeign);
    }
    if (got.size() >= kGreeting) {
        m_begin += kGreeting;
        m_greeted = true;
        if (m_curve.GetState() == LinkCurve::State::Begins) {
            PutPlain(m_curve.Begin());
        }
    }
    return News::None;
}

std::optional<std::string_view> LinkWire::TakeBody() {
    const std::string_view got(m_input.data() + m_begin, m_end - m_begin);
    if (got.empty()) {
        return std::nullopt;
    }
    const auto flags = static_cast<unsigned char>(got.front());
    const std::size_t head = (flags & kLongFlag) != 0 ? kLongHead : kShortHead;
    if (got.size() < head) {
        return std::nullopt;
    }
    std::uint64_t size = 0;
    for (const char byte : got.substr(1, head - 1)) {
        size = size << 8U | static_cast<unsigned char>(byte);
    }
    if (size > (IsOpen() ? kLongestFrame : kStrangersRoom - kLongHead) || flags > (kLongFlag | kCommandFlag)) {
        Fail(IsOpen() ? "a frame of a message is too long" : kForeign);
        return std::nullopt;
    }
    if (got.size() < head + size) {
        return std::nullopt;
    }
    m_begin += head + size;
    return got.substr(head, size);
}

LinkWire::News LinkWire::TakeHandshake(std::string_view command) {
    const auto reply = m_curve.Take(command);
    if (!reply) {
        return Fail(kForeign);
    }
    if (!reply->empty()) {
        PutPlain(*reply);
    }
    switch (m_curve.GetState()) {
        case LinkCurve::State::Asks:
            return News::Asks;
        case LinkCurve::State::Open:
            return News::Open;
        case LinkCurve::State::Refused:
            return News::Refused;
        default:
            return News::None;
    }
}

LinkWire::News LinkWire::TakeSealed(std::string_view body) {
    if (body.size() < LinkCurve::kOverhead) {
        return Fail(kForeign);
    }
    const std::size_t size = body.size() - LinkCurve::kOverhead;
    const auto content = std::make_shared_for_overwrite<char[]>(size + 1);
    const auto flags = m_curve.Unseal(body, content.get());
    if (!flags) {
        return Fail("what it sends was changed on the way");
    }
    const std::string_view text(content.get() + 1, size);
    if ((*flags & LinkCurve::kCommand) != 0) {
        TakeCommand(text);
        return News::None;
    }
    m_held += size + kLinkFrameCost;
    if (m_held > kMostHeld) {
        m_message.clear();
        return Fail("a message is too long");
    }
    m_message.push_back({content, text});
    return (*flags & LinkCurve::kMore) != 0 ? News::None : News::Message;
}

void LinkWire::TakeCommand(std::string_view command) {
    // One that asks and asks, and takes no answer, gets none.
    if (command.starts_with(kPing) && m_output.size() < kMostUnsent) {
        const auto context = command.substr(std::min(command.size(), kPing.size() + kPingLife), kLongestPing);
        PutSealed(LinkCurve::kCommand, std::string(kPong).append(context));
    }
}

void LinkWire::Admit() {
    PutPlain(m_curve.Admit());
}

void LinkWire::Refuse() {
    PutPlain(m_curve.Refuse());
}

LinkFrames LinkWire::TakeMessage() {
    m_held = 0;
    return std::exchange(m_message, {});
}

void LinkWire::Probe() {
    if (m_output.size() < kMostUnsent) {
        PutSealed(LinkCurve::kCommand, std::string(kPing).append(kPingLife, '\0'));
    }
}

LinkWire::News LinkWire::Fail(const char* problem) {
    m_problem = problem;
    return News::Failed;
}

void LinkWire::PutPlain(std::string_view command) {
    PutHead(kCommandFlag, command.size(), m_output);
    m_output += command;
}

void LinkWire::PutSealed(std::uint8_t flags, std::string_view content) {
    const std::size_t size = content.size() + LinkCurve::kOverhead;
    PutHead(0, size, m_output);
    m_output.resize(m_output.size() + size);
    m_curve.Seal(flags, content, m_output.data() + m_output.size() - size);
}
