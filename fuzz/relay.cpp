#include <sys/socket.h>

#include <algorithm>

#include "Fuzz.h"
#include "ProgressRelay.h"
#include "ZMessages/ZJSONCommStream.h"
#include "ZShared/ZFileDescriptor.h"
#include "ZShared/ZUnixAddress.h"

namespace {

struct Relay {
    std::vector<std::shared_ptr<InstallProgressMsg>> told;
    ProgressRelay relay{[] { return ZLogger("fuzz", 5); },
                        [this](const std::shared_ptr<InstallProgressMsg>& message) { told.push_back(message); }};
    ProgressRelay::Place place;

    Relay() {
        place.archive = "/tmp";
        place.name = "arbor-fuzz-relay-" + std::to_string(::getpid());
    }
};

ZFileDescriptor Stream() {
    return ZFileDescriptor(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

}  // namespace

// What installers send to the relay of their progress: two of them, in any pieces.
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Relay fixture;
    std::string_view rest = fuzz::Text(data, size);
    ZJSONCommStream stream;
    const int listener = Stream().Release();
    fixture.told.clear();
    fuzz::Must(fixture.relay.Bind(listener, fixture.place), fixture.relay.Failure().c_str());
    const auto address = ZUnixAddress::Of(fixture.place.Path().string());
    ZFileDescriptor clients[]{Stream(), Stream()};
    for (const auto& client : clients) {
        fuzz::Must(::connect(client.Get(), address->Get(), ZUnixAddress::Size()) == 0, "it is reached");
    }
    bool goesOn = fixture.relay.Pass(listener, stream);
    while (!rest.empty() && goesOn) {
        const std::uint8_t control = fuzz::TakeByte(rest);
        const std::size_t length = std::min<std::size_t>(control, rest.size());
        const ssize_t sent = ::send(clients[control & 1U].Get(), rest.data(), length, MSG_NOSIGNAL);
        fuzz::Must(sent == static_cast<ssize_t>(length), "there is room");
        rest.remove_prefix(length);
        goesOn = length == 0 || fixture.relay.Pass(listener, stream);
    }
    fixture.relay.EndWhenRead();
    while (fixture.relay.Pass(listener, stream)) {
    }
    fixture.relay.Close(listener, fixture.place);
    fuzz::Must(fixture.told.size() <= size, "what is told was sent");
    return 0;
}
