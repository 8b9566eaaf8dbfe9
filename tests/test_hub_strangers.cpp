/// Who among the relay's connections has its turn, and who has to go.
#include <gtest/gtest.h>

#include "hub/strangers.h"

namespace ZARO::RelayHub {
namespace {

using std::chrono::milliseconds;

struct HubStrangers : testing::Test {
    /// A connection from that network; `moment` is its number and stands for its session.
    Strangers::Place Add(std::uint64_t network) {
        ++last_;
        return strangers_.Add(Session(last_), network, now_);
    }
    static RelaySession* Session(std::uintptr_t number) {
        return reinterpret_cast<RelaySession*>(number);
    }
    bool Ask(Strangers::Place stranger) { return strangers_.Ask(stranger, now_); }
    /// A crowd of one network that takes all places; the rest wait.
    std::vector<Strangers::Place> Crowd(std::size_t size) {
        std::vector<Strangers::Place> crowd;
        for (std::size_t i = 0; i < size; ++i) {
            crowd.push_back(Add(1));
            EXPECT_EQ(Ask(crowd.back()), i < Strangers::kMaxActive) << i;
        }
        return crowd;
    }
    std::vector<RelaySession*> Next() { return strangers_.Next(now_); }

    Strangers strangers_;
    Strangers::Clock::time_point now_ = Strangers::Clock::now();
    std::uintptr_t last_ = 0;
};

TEST_F(HubStrangers, NetworksTakeTurnsAndTheBegunComeFirst) {
    std::vector<Strangers::Place> crowd = Crowd(Strangers::kMaxActive + 10);
    const Strangers::Place other = Add(2);
    EXPECT_FALSE(Ask(other));
    EXPECT_TRUE(Next().empty()) << "all places are taken";
    strangers_.Remove(crowd[0]);
    EXPECT_EQ(Next(), std::vector<RelaySession*>{crowd[64]->session});
    strangers_.Remove(crowd[1]);
    EXPECT_EQ(Next(), std::vector<RelaySession*>{other->session}) << "nine of the crowd wait";

    now_ += Strangers::kPause; // those that say nothing meanwhile make room
    EXPECT_TRUE(Ask(crowd[2]));
    EXPECT_EQ(Next().size(), 9U);
    EXPECT_FALSE(strangers_.IsCrowded());
    for (std::size_t i = 3; i < 64; ++i) {
        (void)Ask(crowd[i]); // they go on, and most have a place
    }
    const Strangers::Place fresh = Add(1);
    EXPECT_FALSE(Ask(fresh));
    EXPECT_FALSE(Ask(fresh)) << "it waits already";
    EXPECT_TRUE(Ask(crowd[2])) << "it has kept its place";
    now_ += Strangers::kTurn;
    EXPECT_TRUE(Ask(crowd[2]));
    const std::vector<RelaySession*> next = Next();
    ASSERT_GT(next.size(), 1U);
    EXPECT_EQ(next.back(), fresh->session) << "the others had begun";
}

TEST_F(HubStrangers, WhoComesNoFurtherMakesRoom) {
    const Strangers::Place lonely = Add(2);
    std::vector<Strangers::Place> crowd = Crowd(Strangers::kMax - 1);
    EXPECT_TRUE(strangers_.IsFull());
    now_ += Strangers::kStandstill - milliseconds(1);
    EXPECT_EQ(strangers_.Idlest(now_), nullptr);
    strangers_.Advance(crowd[0], now_);
    EXPECT_TRUE(Ask(crowd[1])) << "bytes are not yet a step";
    now_ += milliseconds(1);
    EXPECT_EQ(strangers_.Idlest(now_), crowd[1]->session) << "of the network that has most";
    for (std::size_t i = 1; i < 64; ++i) {
        strangers_.Remove(crowd[i]);
    }
    EXPECT_EQ(strangers_.Idlest(now_), lonely->session) << "the crowd waits for the relay";
    strangers_.Remove(lonely);
    EXPECT_EQ(strangers_.Idlest(now_), nullptr);
}

} // namespace
} // namespace ZARO::RelayHub
