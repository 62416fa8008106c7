#include "fake_jvmti.h"

#include "global.h"
#include "lock.h"
#include "log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {
void use_every_operation(JavaLock& lock) {
    lock.lock();
    lock.wait(10);
    lock.wait();
    lock.notify();
    lock.notify_all();
    lock.release();
    JavaLockGuard guard(&lock);
}
}  // namespace

TEST(JavaLock, FailedCreationLeavesAnInertLockAndIsLoggedAsAnError) {
    FakeJvmti fake;
    fake.fail("CreateRawMonitor", JVMTI_ERROR_OUT_OF_MEMORY);
    std::vector<std::string> lines = log_lines(LOG_ERROR_LEVEL, [] {
        JavaLock lock("TestLock");
        EXPECT_TRUE(lock.is_inert());
        use_every_operation(lock);
    });
    EXPECT_THAT(lines, ElementsAre("ERROR Failed to CreateRawMonitor(TestLock) JVMTI_ERROR_OUT_OF_MEMORY 110"));
    // The error name is fetched and its buffer given back; no monitor call follows, not even
    // DestroyRawMonitor at the end.
    EXPECT_THAT(fake.calls, ElementsAre("CreateRawMonitor(TestLock)", "GetErrorName(110)", "Deallocate"));

    // Without an environment at all the lock is inert as well, and quietly so.
    ScopedValue<jvmtiEnv*> no_environment(g_jvmti, nullptr);
    fake.calls.clear();
    EXPECT_THAT(log_lines(LOG_WARN_LEVEL, [] {
                    JavaLock lock("Early");
                    EXPECT_TRUE(lock.is_inert());
                    use_every_operation(lock);
                }),
                IsEmpty());
    EXPECT_THAT(fake.calls, IsEmpty());
}

TEST(JavaLock, GuardsHoldTheMonitorForTheirScopeInNestingOrder) {
    FakeJvmti fake;
    std::vector<std::string> lines = log_lines(LOG_WARN_LEVEL, [] {
        JavaLock outer("Outer");
        JavaLock inner("Inner");
        EXPECT_FALSE(outer.is_inert());
        JavaLockGuard a(&outer);
        JavaLockGuard b(&inner);
        JavaLockGuard nothing(nullptr);
        inner.wait(5000000000);  // beyond 32 bits: the time limit must reach the VM whole
        inner.wait();
        inner.notify();
        outer.notify_all();
    });
    EXPECT_THAT(lines, IsEmpty());
    EXPECT_THAT(fake.calls,
                ElementsAre("CreateRawMonitor(Outer)", "CreateRawMonitor(Inner)", "RawMonitorEnter(#1)",
                            "RawMonitorEnter(#2)", "RawMonitorWait(#2, 5000000000)", "RawMonitorWait(#2, 0)",
                            "RawMonitorNotify(#2)", "RawMonitorNotifyAll(#1)", "RawMonitorExit(#2)",
                            "RawMonitorExit(#1)", "DestroyRawMonitor(#2)", "DestroyRawMonitor(#1)"));
}

TEST(JavaLock, FailedMonitorCallsAreLoggedWithTheErrorNameAndNumber) {
    struct Case {
        const char* function;
        jvmtiError error;
        void (*action)(JavaLock&);
        const char* logged;
    };
    const Case cases[] = {
        {"RawMonitorEnter", JVMTI_ERROR_NOT_MONITOR_OWNER, [](JavaLock& l) { JavaLockGuard g(&l); },
         "ERROR Failed to RawMonitorEnter JVMTI_ERROR_NOT_MONITOR_OWNER 51"},
        {"RawMonitorExit", JVMTI_ERROR_NOT_MONITOR_OWNER, [](JavaLock& l) { JavaLockGuard g(&l); },
         "ERROR Failed to RawMonitorExit JVMTI_ERROR_NOT_MONITOR_OWNER 51"},
        {"RawMonitorWait", JVMTI_ERROR_INTERRUPT, [](JavaLock& l) { l.wait(250); },
         "ERROR Failed to RawMonitorWait(250) JVMTI_ERROR_INTERRUPT 52"},
        {"RawMonitorNotify", JVMTI_ERROR_INVALID_MONITOR, [](JavaLock& l) { l.notify(); },
         "ERROR Failed to RawMonitorNotify JVMTI_ERROR_INVALID_MONITOR 50"},
        {"RawMonitorNotifyAll", JVMTI_ERROR_INVALID_MONITOR, [](JavaLock& l) { l.notify_all(); },
         "ERROR Failed to RawMonitorNotifyAll JVMTI_ERROR_INVALID_MONITOR 50"},
        {"DestroyRawMonitor", JVMTI_ERROR_INVALID_MONITOR, [](JavaLock&) {},
         "ERROR Failed to DestroyRawMonitor JVMTI_ERROR_INVALID_MONITOR 50"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.function);
        FakeJvmti fake;
        fake.fail(c.function, c.error);
        std::vector<std::string> lines = log_lines(LOG_ERROR_LEVEL, [&] {
            JavaLock lock("L");
            c.action(lock);
            EXPECT_FALSE(lock.is_inert()) << "a failed call does not give the monitor up";
        });
        EXPECT_THAT(lines, ElementsAre(c.logged));
    }

    // When even the error's name cannot be had, the number alone is logged.
    FakeJvmti fake;
    fake.fail("RawMonitorEnter", JVMTI_ERROR_NOT_MONITOR_OWNER);
    fake.fail("GetErrorName", JVMTI_ERROR_INVALID_ENVIRONMENT);
    EXPECT_THAT(log_lines(LOG_ERROR_LEVEL, [] {
                    JavaLock lock("L");
                    lock.lock();
                }),
                ElementsAre("ERROR GetErrorName failed 116", "ERROR Failed to RawMonitorEnter  51"));
}
