#include <latch>
#include <thread>

#include "BareQueue.h"
#include "Benches.h"
#include "Nodes.h"

namespace {

using Message = std::shared_ptr<ZMessage>;

constexpr auto kType = ZEndpointType::GraphService;
constexpr const char* kKeyword = "bench";
constexpr std::size_t kBatch = 1000;

void AskNode(benchmark::State& state) {
    ZGraph graph(ZMakeShared<ZCoreConfigParams>());
    const auto asking = AddNode(graph, ZNode::kClassName, "Asking");
    const auto answering = AddNode(graph, ZNode::kClassName, "Answering");
    answering->Subscribe(answering->GetEndpoint(kType, kKeyword, 0), [&answering](Message& request) {
        return answering->PublishResponse(request, Z_MAKE(ZGenericResponseMsg));
    });
    for ([[maybe_unused]] auto _ : state) {
        Message answer;
        if (!asking->Publish(asking->GetEndpoint(kType, kKeyword, 0), Z_MAKE(ZGenericRequestMsg), &answer)) {
            state.SkipWithError("a request was not answered");
            break;
        }
    }
    CountItems(state, 1);
    graph.Stop();
}

void AskBare(benchmark::State& state) {
    BareQueue<Message> requests;
    BareQueue<Message> answers;
    std::thread answering([&] {
        while (requests.Pop()) {
            answers.Push(std::make_shared<ZGenericResponseMsg>());
        }
    });
    for ([[maybe_unused]] auto _ : state) {
        requests.Push(std::make_shared<ZGenericRequestMsg>());
        benchmark::DoNotOptimize(answers.Pop());
    }
    requests.Push(nullptr);
    answering.join();
    CountItems(state, 1);
}

/// Notices when every receiver has had the whole batch. Each receiver counts for itself; the last one wakes the sender.
class BatchWatch {
public:
    explicit BatchWatch(std::size_t receivers) : m_received(receivers) {}
    /// Before the batch is sent.
    void Expect() { m_done.emplace(static_cast<std::ptrdiff_t>(m_received.size())); }
    void Wait() const { m_done->wait(); }
    /// On the receiver's thread, for each message.
    void Count(std::size_t receiver) {
        if (++m_received[receiver].count % kBatch == 0) {
            m_done->count_down();
        }
    }

private:
    struct alignas(64) Counter {
        std::size_t count = 0;
    };
    std::vector<Counter> m_received;
    std::optional<std::latch> m_done;
};

void TellNodes(benchmark::State& state, std::size_t receivers) {
    BatchWatch watch(receivers);
    ZGraph graph(ZMakeShared<ZCoreConfigParams>());
    const auto sender = AddNode(graph, ZNode::kClassName, "Sender");
    for (std::size_t index = 0; index < receivers; ++index) {
        const auto node = AddNode(graph, ZNode::kClassName, ToZString("Receiver " + std::to_string(index)));
        node->Subscribe(node->GetEndpoint(kType, kKeyword, 0), [&watch, index](Message&) {
            watch.Count(index);
            return true;
        });
    }
    for ([[maybe_unused]] auto _ : state) {
        watch.Expect();
        for (std::size_t count = 0; count < kBatch; ++count) {
            sender->Publish(sender->GetEndpoint(kType, kKeyword, 0), Z_MAKE(ZGenericRequestMsg));
        }
        watch.Wait();
    }
    CountItems(state, kBatch);
    graph.Stop();
}

void TellBare(benchmark::State& state, std::size_t receivers) {
    BatchWatch watch(receivers);
    std::vector<BareQueue<Message>> queues(receivers);
    std::vector<std::thread> threads;
    threads.reserve(receivers);
    for (std::size_t index = 0; index < receivers; ++index) {
        threads.emplace_back([&watch, &queue = queues[index], index] {
            while (queue.Pop()) {
                watch.Count(index);
            }
        });
    }
    const auto tell = [&queues](const Message& message) {
        for (auto& queue : queues) {
            queue.Push(message);
        }
    };
    for ([[maybe_unused]] auto _ : state) {
        watch.Expect();
        for (std::size_t count = 0; count < kBatch; ++count) {
            tell(std::make_shared<ZGenericRequestMsg>());
        }
        watch.Wait();
    }
    tell(nullptr);
    for (std::thread& thread : threads) {
        thread.join();
    }
    CountItems(state, kBatch);
}

}  // namespace

void AddBus(Report& report) {
    Register("bus/ask/node", AskNode);
    Register("bus/ask/bare", AskBare);
    report.Add({"bus: request and answer", "bus/ask/node", "bus/ask/bare", Quantity::Time, 3});
    for (const std::size_t receivers : {1U, 10U, 100U}) {
        const std::string name = "bus/tell/" + std::to_string(receivers);
        Register(name + "/node", [receivers](benchmark::State& state) { TellNodes(state, receivers); });
        Register(name + "/bare", [receivers](benchmark::State& state) { TellBare(state, receivers); });
        report.Add({"bus: messages to " + Counted(receivers, "subscriber"), name + "/node", name + "/bare",
                    Quantity::Rate, 3});
    }
}
