#include "fake_jvmti.h"

#include "global.h"
#include "lock.h"
#include "log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <utility>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {
// Every operation of a lock; returns whether the lock was inert.
bool use_every_operation() {
    JavaLock lock("L");
    JavaLockGuard guard(&lock);
    return lock.is_inert();
}
}  // namespace

TEST(JavaLock, GuardsHoldTheMonitorForTheirScopeInNestingOrder) {
    FakeJvmti fake;
    EXPECT_THAT(log_lines(LOG_WARN_LEVEL, [] {
                    JavaLock outer("Outer");
                    JavaLock inner("Inner");
                    JavaLockGuard a(&outer);
                    JavaLockGuard b(&inner);
                    JavaLockGuard nothing(nullptr);
                }),
                IsEmpty());
    EXPECT_THAT(fake.calls,
                ElementsAre("CreateRawMonitor(Outer)", "CreateRawMonitor(Inner)", "RawMonitorEnter(#1)",
                            "RawMonitorEnter(#2)", "RawMonitorExit(#2)", "RawMonitorExit(#1)", "DestroyRawMonitor(#2)", "DestroyRawMonitor(#1)"));
}

// Each operation reaches its own entry, and its failure is logged with the VM's name of the error
// and its number. A lock whose monitor could not be made is inert: no monitor call follows, not
// even DestroyRawMonitor at the end; any other failure leaves the monitor in place.
TEST(JavaLock, FailedCallsAreLoggedAndAFailedCreationLeavesAnInertLock) {
    for (auto [function, logged] : {std::pair{"CreateRawMonitor", "CreateRawMonitor(L) name-of-51 51"},
                                    {"RawMonitorEnter", "RawMonitorEnter name-of-51 51"},
                                    {"RawMonitorExit", "RawMonitorExit name-of-51 51"},
                                    {"DestroyRawMonitor", "DestroyRawMonitor name-of-51 51"}}) {
        SCOPED_TRACE(function);
        FakeJvmti fake;
        fake.fail(function, JVMTI_ERROR_NOT_MONITOR_OWNER);
        bool inert = false;
        EXPECT_THAT(log_lines(LOG_ERROR_LEVEL, [&] { inert = use_every_operation(); }),
                    ElementsAre(std::string("ERROR Failed to ") + logged));
        EXPECT_EQ(std::string(function) == "CreateRawMonitor", inert);
        if (inert) {
            EXPECT_THAT(fake.calls, ElementsAre("CreateRawMonitor(L)", "GetErrorName(51)", "Deallocate"));
        }
    }

    // When even the error's name cannot be had, the number alone is logged.
    FakeJvmti fake;
    fake.fail("RawMonitorEnter", JVMTI_ERROR_NOT_MONITOR_OWNER);
    fake.fail("GetErrorName", JVMTI_ERROR_INVALID_ENVIRONMENT);
    EXPECT_THAT(log_lines(LOG_ERROR_LEVEL, [] { JavaLock("L").lock(); }),
                ElementsAre("ERROR GetErrorName failed 116", "ERROR Failed to RawMonitorEnter  51"));

    // A lock made before the VM gave an environment is inert as well, and quietly so.
    g_jvmti = nullptr;
    fake.calls.clear();
    EXPECT_THAT(log_lines(LOG_WARN_LEVEL, [] { EXPECT_TRUE(use_every_operation()); }), IsEmpty());
    EXPECT_THAT(fake.calls, IsEmpty());
}
