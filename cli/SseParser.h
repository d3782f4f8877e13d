#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>

namespace arborctl {

/// One server-sent event, or (name empty) a comment line of the stream, whose text is in `data`.
struct ServerEvent {
    std::string name;  ///< "message" when the stream named none.
    std::string id;    ///< The newest id of the stream so far.
    std::string data;  ///< The data lines, joined by newlines.

    [[nodiscard]] bool IsComment() const { return name.empty(); }
};

/// Takes an event stream apart as its bytes arrive, in pieces of any size. Not for several threads at once.
class SseParser {
public:
    using Receiver = std::function<void(ServerEvent)>;

    /// An event of more than this many bytes is refused, so that a broken stream can't fill the memory.
    static constexpr std::size_t kMaxEventBytes = std::size_t{8} << 20U;

    explicit SseParser(Receiver receiver) : m_receiver(std::move(receiver)) {}

    /// Hands each event that `bytes` completes to the receiver, in order. False when an event is too large: the stream
    /// is of no use any more.
    bool Feed(std::string_view bytes);

private:
    void TakeLine(std::string_view line);
    void TakeField(std::string_view name, std::string_view value);
    void Dispatch();

    Receiver m_receiver;
    std::string m_line;
    bool m_afterCarriageReturn = false;  // a newline that follows belongs to the line already taken
    bool m_firstLine = true;
    ServerEvent m_event;
    bool m_hasData = false;
};

}  // namespace arborctl
