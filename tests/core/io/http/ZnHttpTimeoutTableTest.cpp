#include "core/io/http/ZnHttpTimeoutTable_.h"

#include <gtest/gtest.h>

namespace {

using Phase = ZnHttpSessionPhase_;
using Verdict = ZnHttpTimeoutTable_::Verdict;

constexpr long long kMs = 1'000'000;

// Each clock began at a time of its own: the handler's at 2000 ms, the request's at 1000, the last write was at 3000,
// the last look at the peer at 4000, the last activity at 5000, which is the begin of the drain.
TEST(ZnHttpTimeoutTable, TheFirstRowOfThePhaseDecides) {
    const ZnHttpTimeouts all{100, 200, 300, 400, 500, 0};
    // Time-outs: header, body, keep-alive, write, handler, look at the peer. 0: never.
    const std::tuple<Phase, ZnHttpTimeouts, long long, Verdict> kRows[] = {
        {Phase::Closed, all, 0, Verdict::None},
        {Phase::Draining, all, 5200, Verdict::Close},
        {Phase::Responding, all, 3401, Verdict::CloseSlowReader},
        {Phase::Responding, {1, 1, 1, 0, 1, 1}, 0, Verdict::None},
        {Phase::Handling, all, 2501, Verdict::AnswerLateHandler},
        {Phase::Handling, {1, 200, 1, 1}, 2201, Verdict::AnswerLateHandler},
        {Phase::Handling, {1, 1, 1, 1, 0, 50}, 4051, Verdict::LookAtPeer},
        {Phase::Handling, {1, -1, 1, 1}, 0, Verdict::None},
        {Phase::Idle, {2000, 1, 300, 1}, 3001, Verdict::AnswerLateRequest},
        {Phase::Idle, {1999, 1, 300, 1}, 3000, Verdict::Close}, // the time was up when the answer left
        {Phase::Idle, {0, 1, 300, 1}, 5301, Verdict::Close},
        {Phase::Idle, {0, 1, 0, 1}, 0, Verdict::None},
        {Phase::Head, all, 1101, Verdict::AnswerLateRequest},
        {Phase::Head, {0, 1, 1, 1}, 0, Verdict::None},
        {Phase::Body, all, 1201, Verdict::AnswerLateRequest},
    };
    for (const auto& [phase, timeouts, ms, verdict] : kRows) {
        SCOPED_TRACE(ms);
        ZnHttpTimeoutTable_ table(timeouts, 0);
        table.noteHandlerStart(2000 * kMs);
        table.noteRequestStart(1000 * kMs);
        table.noteWrite(3000 * kMs);
        table.notePeerLook(4000 * kMs);
        table.noteDrainStart(5000 * kMs);
        const long long endNs = ms == 0 ? 1'000'000 * kMs : ms * kMs;
        EXPECT_EQ(table.verdict(phase, endNs - 1), Verdict::None);
        EXPECT_EQ(table.verdict(phase, endNs), verdict);
    }
}

TEST(ZnHttpTimeoutTable, APeerThatTakesBytesIsNotSlowAndADrainEnds) {
    ZnHttpTimeoutTable_ table({1, 1, 1, 400}, 0);
    table.noteTaken(1, 300 * kMs);
    table.noteTaken(1, 600 * kMs); // nothing more
    EXPECT_EQ(table.verdict(Phase::Responding, 701 * kMs - 1), Verdict::None);
    EXPECT_EQ(table.verdict(Phase::Responding, 701 * kMs), Verdict::CloseSlowReader);
    table.noteDrainStart(1000 * kMs);
    table.noteActivity(1900 * kMs);
    EXPECT_EQ(table.verdict(Phase::Draining, 2000 * kMs - 1), Verdict::None);
    EXPECT_EQ(table.verdict(Phase::Draining, 2000 * kMs), Verdict::Close);
}

} // namespace
