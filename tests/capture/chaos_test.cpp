// A long capture through a hostile server: at the end every segment is stored
// exactly once, in order, with no gap, and the call is closed.
#include "support/ChaosScenario.h"

#include <gtest/gtest.h>

using namespace tessel::test;

TEST(Chaos, EverySegmentStoredExactlyOnceThroughFaultsAndALostSignIn) {
    for (unsigned seed : {7u, 1234u, 99991u}) {
        SCOPED_TRACE(seed);
        const ChaosOutcome outcome = runChaos(seed);
        EXPECT_TRUE(outcome.finished) << outcome.error.toStdString();
        EXPECT_EQ(outcome.signIns, 1);
        EXPECT_GT(outcome.faults, 10);
        EXPECT_EQ(outcome.stored, outcome.emitted);
        EXPECT_EQ(outcome.duplicated + outcome.misplaced, 0);
        EXPECT_EQ(outcome.callsClosed, outcome.calls);
    }
}
