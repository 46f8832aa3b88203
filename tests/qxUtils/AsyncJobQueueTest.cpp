#include "qxUtils/AsyncJobQueue.h"

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace quna {
namespace {

// A job that notes its number, and whose thread's name it saw.
struct NoteJob {
    std::vector<int>* m_done;
    int m_number;
    void operator()() { m_done->push_back(m_number); }
};

struct CallJob {
    void (*m_fn)(void*);
    void* m_arg;
    void operator()() { m_fn(m_arg); }
};

TEST(AsyncJobQueue, RunsJobsInOrderAndAllOfThemBeforeItStops) {
    std::vector<int> done;
    AsyncJobQueue<NoteJob> queue;
    for (int i = 0; i < 100; ++i) queue.Push({&done, i});
    queue.Start();
    for (int i = 100; i < 3000; ++i) queue.Push({&done, i});
    queue.Stop();
    ASSERT_EQ(3000u, done.size());
    for (int i = 0; i < 3000; ++i) ASSERT_EQ(i, done[static_cast<std::size_t>(i)]);
}

TEST(AsyncJobQueue, PopAllTakesEverythingAndSaysWhetherToEnd) {
    std::vector<int> done;
    AsyncJobQueue<NoteJob> queue;
    queue.Push({&done, 1});
    queue.Push({&done, 2});
    AsyncJobQueue<NoteJob>::QUEUE taken;
    EXPECT_FALSE(queue.PopAll(taken));
    EXPECT_EQ(2, taken.size());
    AsyncJobQueue<NoteJob>::QUEUE none;
    EXPECT_FALSE(queue.PopAll(none));
    EXPECT_TRUE(none.empty());
}

TEST(AsyncJobQueue, StoppingWhatWasNotStartedDoesNothing) {
    AsyncJobQueue<NoteJob> queue;
    queue.Stop();
}

TEST(AsyncJobQueue, ItsThreadBearsTheWholeNameAndTheSystemItsFirst15Characters) {
    std::string name;
    std::string systemName;
    struct Names {
        std::string* m_name;
        std::string* m_systemName;
    } names{&name, &systemName};
    AsyncJobQueue<CallJob> queue;
    queue.Start();
    queue.Push({[](void* arg) {
                    auto* out = static_cast<Names*>(arg);
                    *out->m_name = GetThreadName();
                    char buffer[32] = {};
                    pthread_getname_np(pthread_self(), buffer, sizeof(buffer));
                    *out->m_systemName = buffer;
                },
                &names});
    queue.Stop();
    EXPECT_EQ("AsyncJobQueue", name);
    EXPECT_EQ("AsyncJobQueue", systemName);
}

TEST(AsyncJobQueueThreads, PushersOnSeveralThreadsLoseNoJob) {
    std::atomic<int> numRun{0};
    AsyncJobQueue<CallJob> queue;
    queue.Start();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 2000; ++i)
                queue.Push({[](void* arg) { static_cast<std::atomic<int>*>(arg)->fetch_add(1); }, &numRun});
        });
    for (std::thread& thread : threads) thread.join();
    queue.Stop();
    EXPECT_EQ(8000, numRun.load());
}

} // namespace
} // namespace quna
