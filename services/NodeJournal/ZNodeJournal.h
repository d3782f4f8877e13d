#pragma once

#include "NodeBase/ZNode.h"

namespace journal {
class Journal;
}

class ZNodeJournalCfg : public ZConfig {
    Z_MESSAGE(ZNodeJournalCfg, ZConfig)
public:
    using ZConfig::ZConfig;
    ZString m_DatabaseFile = "/var/lib/arbor/journal.sqlite";
    std::uint32_t m_MostRows = 20'000;
    std::uint32_t m_MostDays = 0;
    std::uint32_t m_MostOrders = 10'000;

    Z_FIELDS(
        Z_FIELD(m_DatabaseFile)
            .Path()
            .Means("Where jobs are kept. On storage that an update keeps; its folder is made. Damaged, it is moved to "
                   "the same name with .damaged behind it, and begun anew."),
        Z_FIELD(m_MostRows)
            .In(100, 1'000'000)
            .Means("Jobs that are kept: the oldest that have ended go first, of the kind that has most."),
        Z_FIELD(m_MostDays)
            .In(0, 36'500)
            .Means("How long an ended job is kept at most, by the device's clock. 0: as long as there is room."),
        Z_FIELD(m_MostOrders)
            .In(100, 1'000'000)
            .Means("Orders of people that are kept; a quarter of them may be refused ones."))
};

/// Keeps every job of the graph: hears of them on "operation", answers "operations", and settles at its start what an
/// earlier life of the host left open. Keeps what people ordered, too: "order" and "orders". Stands before the nodes
/// whose jobs it keeps.
class ZNodeJournal : public ZNode {
    Z_CLASS(ZNodeJournal, ZNode)
public:
    explicit ZNodeJournal(const ZString& name);
    ~ZNodeJournal() override;

    /// Opens the database. False when the record is of another class or holds a value that can't be used, or when a
    /// newer program has written the database. A disk that takes nothing is no reason.
    bool OnConfig(const std::shared_ptr<ZMessage>& message, const std::shared_ptr<ZConfig>& config) override;
    bool InitMessageMap() override;
    void OnShutdown() override;

private:
    template <typename Message>
    bool OnNews(const std::shared_ptr<ZMessage>& message);
    template <typename Request>
    bool OnRequest(const std::shared_ptr<ZMessage>& message);
    void DoRestLater();

    std::unique_ptr<journal::Journal> m_journal;
    bool m_bResting = false;  // the timer runs
};
