#include <gtest/gtest.h>

#include <thread>

#include "CWatchTime.h"

TEST(CWatchTime, MeasuresIntervalsOnAMonotonicClock)
{
    CWatchTime watch;
    EXPECT_EQ(watch.count(), 0u);
    EXPECT_EQ(watch.meanMicros(), 0.0);
    watch.stop();  // without start: ignored
    EXPECT_EQ(watch.count(), 0u);

    watch.start();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    watch.stop();
    watch.start();
    watch.stop();
    EXPECT_EQ(watch.count(), 2u);
    EXPECT_GE(watch.maxMicros(), 20000.0);
    EXPECT_LT(watch.lastMicros(), watch.maxMicros());
    EXPECT_NEAR(watch.meanMicros(), (watch.maxMicros() + watch.lastMicros()) / 2, 1e-6);
}
