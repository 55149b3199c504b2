// Creating, joining and ending threads: a thread runs its function with
// exactly its argument, beside its creator, on exactly the caller's block
// when it was given one; a refused creation starts nothing; Join returns
// once the thread has ended, whether it returned or called OsalThreadExit,
// and OsalThreadExit never returns.
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

#include "vek_contract.h"
#include "vek_contract_thread.h"

namespace zov_vek_contract {
namespace {

using zov_vek::OsalThreadAttrSetName;
using zov_vek::OsalThreadAttrSetStack;
using zov_vek::OsalThreadAttrSetStackSize;
using zov_vek::OsalThreadCreate;
using zov_vek::OsalThreadJoin;

std::atomic<int> g_runs{0};
void CountRun(void* /*arg*/) { g_runs.fetch_add(1); }

TEST(OsalThreadCreate, RefusesNullArgumentsStartsNothingAndWritesNoHandle) {
  Attr attr("refused");
  g_runs = 0;
  struct Row {
    bool thread;
    bool attr;
    bool func;
  };
  constexpr Row kRows[] = {{false, true, true},  {true, false, true},
                           {true, true, false},  {false, false, false},
                           {true, false, false}, {false, false, true},
                           {false, true, false}};
  for (const Row& row : kRows) {
    SCOPED_TRACE(testing::Message() << "thread " << row.thread << ", attr "
                                    << row.attr << ", func " << row.func);
    void* thread = kPoisonHandle;
    EXPECT_NE(OsalThreadCreate(row.thread ? &thread : nullptr,
                               row.attr ? attr.get() : nullptr,
                               row.func ? &CountRun : nullptr, nullptr),
              VekError::kOk);
    EXPECT_EQ(thread, kPoisonHandle);
  }
  Settle();
  EXPECT_EQ(g_runs.load(), 0) << "a refused creation started a thread";
  // The attribute offered along with the bad arguments still works.
  void* thread = nullptr;
  ASSERT_EQ(OsalThreadCreate(&thread, attr.get(), &CountRun, nullptr),
            VekError::kOk);
  EXPECT_EQ(OsalThreadJoin(thread), VekError::kOk);
  EXPECT_EQ(g_runs.load(), 1);
}

TEST(OsalThreadCreate, RefusesAClearedStackUntilAStackOrASizeIsSetAgain) {
  CallerStack stack(16384);
  ASSERT_NE(stack.get(), nullptr);
  Attr attr;
  ASSERT_EQ(OsalThreadAttrSetName(attr.get(), "cleared"), VekError::kOk);
  g_runs = 0;
  const auto create_and_join = [&attr] {
    void* thread = nullptr;
    const VekError err =
        OsalThreadCreate(&thread, attr.get(), &CountRun, nullptr);
    if (err == VekError::kOk) {
      EXPECT_EQ(OsalThreadJoin(thread), VekError::kOk);
    }
    return err;
  };
  for (bool caller_stack : {true, false}) {
    ASSERT_EQ(OsalThreadAttrSetStack(attr.get(), stack.get(), stack.size()),
              VekError::kOk);
    ASSERT_EQ(OsalThreadAttrSetStack(attr.get(), nullptr, 0), VekError::kOk);
    EXPECT_NE(create_and_join(), VekError::kOk);
    if (caller_stack) {
      ASSERT_EQ(OsalThreadAttrSetStack(attr.get(), stack.get(), stack.size()),
                VekError::kOk);
    } else {
      ASSERT_EQ(OsalThreadAttrSetStackSize(attr.get(), 32768), VekError::kOk);
    }
    EXPECT_EQ(create_and_join(), VekError::kOk)
        << (caller_stack ? "a caller stack" : "a stack size") << " set again";
  }
  Settle();
  EXPECT_EQ(g_runs.load(), 2) << "a refused creation started a thread";
}

TEST(OsalThreadCreate, RefusesAnUnnamedAttributeWithA1200ByteStackWithKErr) {
  struct Row {
    const char* what;
    bool set_name;
    const char* name;
  };
  constexpr Row kRows[] = {{"never named", false, nullptr},
                           {"null name refused", true, nullptr},
                           {"empty name refused", true, ""}};
  g_runs = 0;
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.what);
    Attr attr;
    ASSERT_EQ(OsalThreadAttrSetStackSize(attr.get(), 1200), VekError::kOk);
    if (row.set_name) {
      EXPECT_EQ(OsalThreadAttrSetName(attr.get(), row.name),
                VekError::kErrParam);
    }
    void* thread = nullptr;
    EXPECT_EQ(OsalThreadCreate(&thread, attr.get(), &CountRun, nullptr),
              VekError::kErr);
  }
  Settle();
  EXPECT_EQ(g_runs.load(), 0) << "a refused creation started a thread";
}

TEST(OsalThreadCreate, RunsTheThreadOnExactlyTheCallersBlock) {
  std::vector<std::unique_ptr<CallerStack>> stacks;
  for (unsigned int size : {16384u, 32768u, 65536u}) {
    stacks.push_back(std::make_unique<CallerStack>(size));
    ASSERT_NE(stacks.back()->get(), nullptr);
  }
  Attr attr;
  ASSERT_EQ(OsalThreadAttrSetName(attr.get(), "on_caller"), VekError::kOk);
  for (const auto& stack : stacks) {
    SCOPED_TRACE(testing::Message() << "size " << stack->size());
    ASSERT_EQ(OsalThreadAttrSetStack(attr.get(), stack->get(), stack->size()),
              VekError::kOk);
    // The frame, not the address of a local: under AddressSanitizer a
    // local whose address is taken lives on a fake stack of its own.
    const void* frame = nullptr;
    ASSERT_EQ(RunToEnd(attr.get(), [&] { frame = __builtin_frame_address(0); }),
              VekError::kOk);
    EXPECT_TRUE(stack->Holds(frame))
        << "the thread ran at " << frame << ", outside " << stack->get();
  }
}

TEST(OsalThreadCreate, RunsThreadsOneAfterAnotherOnOneCallerStack) {
  CallerStack stack(32768);
  ASSERT_NE(stack.get(), nullptr);
  Attr attr;
  ASSERT_EQ(OsalThreadAttrSetName(attr.get(), "same_stack"), VekError::kOk);
  ASSERT_EQ(OsalThreadAttrSetStack(attr.get(), stack.get(), stack.size()),
            VekError::kOk);
  for (int round = 0; round < 3; ++round) {
    const void* frame = nullptr;
    ASSERT_EQ(RunToEnd(attr.get(), [&] { frame = __builtin_frame_address(0); }),
              VekError::kOk)
        << "round " << round;
    EXPECT_TRUE(stack.Holds(frame)) << "round " << round;
  }
}

std::atomic<void*> g_arg{nullptr};
void RecordArg(void* arg) { g_arg.store(arg); }

TEST(OsalThreadCreate, PassesTheArgumentUnchanged) {
  Attr attr("with_arg");
  int local = 0;
  void* const unseen = &g_arg;
  for (void* arg : {static_cast<void*>(nullptr), static_cast<void*>(&local),
                    kPoisonHandle, reinterpret_cast<void*>(UINTPTR_MAX)}) {
    g_arg = unseen;
    void* thread = nullptr;
    ASSERT_EQ(OsalThreadCreate(&thread, attr.get(), &RecordArg, arg),
              VekError::kOk);
    ASSERT_EQ(OsalThreadJoin(thread), VekError::kOk);
    EXPECT_EQ(g_arg.load(), arg);
  }
}

TEST(OsalThreadCreate, ReturnsWhileTheFunctionStillRuns) {
  Attr attr("overlaps");
  std::atomic<bool> returned{false};
  std::atomic<bool> overlapped{false};
  // Waits, bounded, for the creator to come back from the creation: a
  // creation that waits for the function fails here instead of hanging.
  Body body = [&] { overlapped = WaitFor([&] { return returned.load(); }); };
  void* thread = nullptr;
  ASSERT_EQ(OsalThreadCreate(&thread, attr.get(), &RunBody, &body),
            VekError::kOk);
  returned = true;
  EXPECT_EQ(OsalThreadJoin(thread), VekError::kOk);
  EXPECT_TRUE(overlapped.load());
}

TEST(OsalThreadCreate, StartsManyThreadsFromOneAttributeThatRunAtOnce) {
  constexpr int kThreads = 4;
  std::atomic<int> ran{0};
  ThreadGroup group("many");
  // Run() requires every thread at the start gate at the same time.
  group.Run(kThreads, [&](int) { ran.fetch_add(1); });
  EXPECT_EQ(ran.load(), kThreads);
}

TEST(OsalThreadJoin, RefusesANullHandle) {
  EXPECT_NE(OsalThreadJoin(nullptr), VekError::kOk);
}

// OsalThreadExit through a pointer: its declaration says that it does not
// return, and a compiler that believes it drops the code that would show
// that it did.
void (*volatile const g_exit)() = &zov_vek::OsalThreadExit;

// Calls OsalThreadExit `depth` frames down; counts the returns that must
// never happen.
void ExitAtDepth(int depth, std::atomic<int>* returned) {
  if (depth == 0) {
    g_exit();
  } else {
    ExitAtDepth(depth - 1, returned);
  }
  returned->fetch_add(1);
}

TEST(OsalThreadJoin, WaitsUntilTheThreadHasEnded) {
  for (bool caller_stack : {true, false}) {
    for (bool exits : {false, true}) {
      for (int round = 0; round < 3; ++round) {
        SCOPED_TRACE(testing::Message()
                     << (caller_stack ? "caller" : "library") << " stack, "
                     << (exits ? "exits" : "returns") << ", round " << round);
        NamedAttr attr("joined", caller_stack);
        std::atomic<bool> joining{false};
        std::atomic<bool> ended{false};
        // Holds on until the creator is about to join, and a little more.
        Body body = [&] {
          WaitFor([&] { return joining.load(); });
          std::this_thread::sleep_for(std::chrono::milliseconds(5));
          ended = true;
          if (exits) g_exit();
        };
        void* thread = nullptr;
        ASSERT_EQ(OsalThreadCreate(&thread, attr.get(), &RunBody, &body),
                  VekError::kOk);
        joining = true;
        EXPECT_EQ(OsalThreadJoin(thread), VekError::kOk);
        if (!ended.load()) {
          ADD_FAILURE() << "Join returned before the thread ended";
          // Let it finish before its stack and body go.
          WaitFor([&] { return ended.load(); });
          Settle();
          return;
        }
      }
    }
  }
}

TEST(OsalThreadExit, EndsTheThreadAtOnceFromAnyDepth) {
  for (bool caller_stack : {true, false}) {
    for (int depth : {0, 16}) {
      SCOPED_TRACE(testing::Message() << (caller_stack ? "caller" : "library")
                                      << " stack, depth " << depth);
      NamedAttr attr("exits", caller_stack);
      std::atomic<bool> reached{false};
      std::atomic<int> returned{0};
      EXPECT_EQ(RunToEnd(attr.get(),
                         [&] {
                           reached = true;
                           ExitAtDepth(depth, &returned);
                           returned.fetch_add(1);
                         }),
                VekError::kOk);
      EXPECT_TRUE(reached.load());
      EXPECT_EQ(returned.load(), 0) << "code after OsalThreadExit ran";
    }
  }
}

}  // namespace
}  // namespace zov_vek_contract
