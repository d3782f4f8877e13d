#include "NodeLink/LinkMessage.h"

#include <algorithm>
#include <memory>
#include <numeric>
#include <utility>

#include "ZMessages/ZJSONCommStream.h"

Z_IMPLEMENT(ZLinkHeader)

namespace {

// A shorter text travels within the JSON.
constexpr std::size_t kLongText = 16384;
constexpr std::size_t kFramesBeforeTexts = 2;
constexpr std::size_t kLongestHeader = 4096;
// What becomes of two characters of a document: an object, its fields left out, or a further value.
constexpr std::size_t kObjectCost = 1024;
constexpr std::size_t kValueCost = 64;

/// The key under which a document has the number of the long text that belongs to `key`.
std::string NumberKey(std::string_view key) {
    return std::string(key) + '@';
}

std::size_t TextSize(LinkFrames::const_iterator from, LinkFrames::const_iterator end) {
    return std::accumulate(from, end, std::size_t{0},
                           [](std::size_t sum, const LinkFrame& frame) { return sum + frame.text.size(); });
}

/// What a document can become, beside its texts. Braces and commas within texts count too: it is a bound.
std::size_t ValuesSize(std::string_view document) {
    const auto count = [document](char mark) { return static_cast<std::size_t>(std::ranges::count(document, mark)); };
    return count('{') * kObjectCost + count(',') * kValueCost;
}

/// Writes long texts beside the document.
class LinkWriter : public ZJSONCommStream {
public:
    void WriteString(std::string_view key, std::string_view value) override {
        if (value.size() < kLongText) {
            ZJSONCommStream::WriteString(key, value);
            return;
        }
        WriteUInt(NumberKey(key), m_texts.size());
        m_texts.push_back(value);
    }
    const std::vector<std::string_view>& Texts() const { return m_texts; }

private:
    std::vector<std::string_view> m_texts;
};

/// Reads them from there.
class LinkReader : public ZJSONCommStream {
public:
    explicit LinkReader(LinkFrames frames) : m_frames(std::move(frames)) {
        for (std::size_t first = kFramesBeforeTexts; first < m_frames.size();) {
            const auto isLast = [](const LinkFrame& frame) { return frame.text.size() < kLinkPiece; };
            const auto from = m_frames.begin() + static_cast<std::ptrdiff_t>(first);
            const auto last = std::find_if(from, m_frames.end(), isLast);
            m_bWhole = m_bWhole && last != m_frames.end();
            const auto end = last == m_frames.end() ? last : std::next(last);
            m_texts.emplace_back(from, end);
            first = static_cast<std::size_t>(end - m_frames.begin());
        }
    }
    bool IsWhole() const { return m_bWhole; }

    bool ReadString(std::string_view key, ZString& value) override {
        std::uint64_t number = 0;
        if (Has(key) || !ReadUInt(NumberKey(key), number, std::numeric_limits<std::uint64_t>::max())) {
            return ZJSONCommStream::ReadString(key, value);
        }
        const Text none{m_frames.cend(), m_frames.cend()};
        // Each text belongs to one value: a small document must not name a long one again and again.
        const auto [from, end] = number < m_texts.size() ? std::exchange(m_texts[number], none) : none;
        if (from == end) {
            SetError(key, "a text of its own among those that came along");
            return false;
        }
        value.clear();
        value.reserve(TextSize(from, end));
        for (auto frame = from; frame != end; ++frame) {
            value.append(frame->text);
        }
        return true;
    }

private:
    using Text =
        std::pair<LinkFrames::const_iterator, LinkFrames::const_iterator>;  // its frames; none once it was read
    LinkFrames m_frames;
    std::vector<Text> m_texts;
    bool m_bWhole = true;
};

LinkFrame Frame(const std::string& text) {
    auto owner = std::make_shared<const std::string>(text);
    const std::string_view kept = *owner;
    return {std::move(owner), kept};
}

/// Frames that show a text where it stands; `owner` keeps it there.
void AddPieces(LinkFrames& frames, std::string_view text, const std::shared_ptr<ZMessage>& owner) {
    for (; text.size() >= kLinkPiece; text.remove_prefix(kLinkPiece)) {
        frames.push_back({owner, text.substr(0, kLinkPiece)});
    }
    frames.push_back({owner, text});
}

}  // namespace

LinkFrames EncodeLinkMessage(const LinkMessage& message) {
    LinkFrames frames;
    ZJSONCommStream headerStream;
    message.header->Serialize(headerStream);
    frames.push_back(Frame(headerStream.Text()));
    if (message.message) {
        LinkWriter stream;
        message.message->SerializeMessage(stream);
        frames.push_back(Frame(stream.Text()));
        for (const std::string_view text : stream.Texts()) {
            AddPieces(frames, text, message.message);
        }
    }
    return frames;
}

ZResult<LinkMessage> DecodeLinkMessage(LinkFrames frames) {
    if (frames.empty()) {
        return ZError("it is empty");
    }
    LinkMessage result{Z_MAKE(ZLinkHeader), nullptr};
    ZJSONCommStream headerStream;
    if (frames.front().text.size() > kLongestHeader) {
        return ZError("its header is too long");
    }
    if (!result.header->Load(frames.front().text, headerStream)) {
        return ZError("its header: " + headerStream.Error());
    }
    if (frames.size() == 1) {
        return result;
    }
    const LinkFrame document = frames[1];
    const std::size_t values = ValuesSize(document.text);
    result.size = LinkSize(frames) + values;
    if (values > kLongestLinkMessage) {
        return ZError("it holds too many values");
    }
    LinkReader stream(std::move(frames));
    if (!stream.IsWhole()) {
        return ZError("a long text has no end");
    }
    if (stream.LoadText(document.text)) {
        result.message = ZMessage::CreateFrom(stream);
    }
    return result.message ? ZResult<LinkMessage>(std::move(result)) : ZError(stream.Error());
}

std::size_t LinkSize(const LinkFrames& frames) {
    return TextSize(frames.begin(), frames.end()) + frames.size() * kLinkFrameCost;
}
