// A thread's run from its start to its hooks' end, and its name for the kernel.
#include "MR_thread.h"

#include <limits.h>
#include <pthread.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cassert>
#include <chrono>
#include <exception>
#include <new>
#include <optional>
#include <system_error>

#include "MR_log.h"
#include "MR_mutex.h"

namespace Mirel {
namespace {

using SteadyTime = std::chrono::steady_clock::time_point;

// The kernel refuses a longer name instead of cutting it.
constexpr std::size_t KernelNameLen = 15;

// What the calling thread runs: null on threads that were not started here.
constinit thread_local const void* t_Run = nullptr;
constinit thread_local const std::string* t_Name = nullptr;

// Cut to what the kernel takes, never within a character.
std::string KernelName(const std::string& name) {
    std::size_t length = std::min(name.size(), KernelNameLen);
    if (length < name.size()) {
        while (length > 0 && (static_cast<unsigned char>(name[length]) & 0xC0) == 0x80) --length;
    }
    return name.substr(0, length);
}

Result_t ExceptionResult(const char* hook, const char* reason) {
    DefaultLogSink().Error("%s ended with an exception: %s\n", hook, reason);
    try {
        return RESULT_FAIL.WithMessage(std::string(hook) + " ended with an exception: " + reason);
    } catch (const std::bad_alloc&) {
        return RESULT_FAIL;
    }
}

template <class Hook>
Result_t RunHook(const char* name, Hook hook) {
    try {
        return hook();
    } catch (const std::exception& exception) {
        return ExceptionResult(name, exception.what());
    } catch (...) {
        return ExceptionResult(name, "not a std::exception");
    }
}

// 0 or the system's error. `stack_size` 0 takes the default.
int CreateDetached(std::size_t stack_size, void* (*main)(void*), void* argument) {
    pthread_attr_t attributes;
    int error = pthread_attr_init(&attributes);
    if (error != 0) return error;
    error = pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    if (error == 0 && stack_size != 0) {
        const auto least = static_cast<std::size_t>(PTHREAD_STACK_MIN);
        error = pthread_attr_setstacksize(&attributes, std::max(stack_size, least));
    }
    pthread_t thread;
    if (error == 0) error = pthread_create(&thread, &attributes, main, argument);
    pthread_attr_destroy(&attributes);
    return error;
}

}  // namespace

struct Thread::Run {
    // What the new thread is handed and owns.
    struct Launch {
        Thread* m_Thread;  // alive until m_Run is finished, not a moment longer
        std::shared_ptr<Run> m_Run;
        std::string m_Name;
    };

    static void* Main(void* launch);

    bool IsOwnThread() const { return t_Run == this; }

    void Finish(const Result_t& result) REQUIRES(m_Lock) {
        m_Result = result;
        m_Finished.store(true, std::memory_order_release);
        m_Ended.NotifyAll();
    }

    // False when the deadline has passed. True at once where no thread was started.
    bool WaitUntilFinished(std::optional<SteadyTime> deadline) EXCLUDES(m_Lock) {
        AutoMutex lock(m_Lock);
        while (m_Started && !m_Finished.load(std::memory_order_relaxed)) {
            if (!deadline) {
                m_Ended.Wait(m_Lock);
            } else if (!m_Ended.WaitUntil(m_Lock, *deadline)) {
                return m_Finished.load(std::memory_order_relaxed);
            }
        }
        return true;
    }

    // Turns true once, under the lock. The Thread object may be gone as soon as anybody has seen it.
    std::atomic<bool> m_Finished{false};

    Mutex m_Lock;
    Condition m_Ended;
    bool m_Started GUARDED_BY(m_Lock) = false;
    Result_t m_Result GUARDED_BY(m_Lock);
    std::string m_Name GUARDED_BY(m_Lock);
    std::size_t m_StackSize GUARDED_BY(m_Lock) = 0;
};

void* Thread::Run::Main(void* argument) {
    const std::unique_ptr<Launch> launch(static_cast<Launch*>(argument));
    t_Run = launch->m_Run.get();
    t_Name = &launch->m_Name;
    pthread_setname_np(pthread_self(), KernelName(launch->m_Name).c_str());

    Thread& thread = *launch->m_Thread;
    Result_t result = RunHook("ThreadInit", [&] { return thread.ThreadInit(); });
    if (result.Success()) result = RunHook("ThreadBody", [&] { return thread.ThreadBody(); });
    result = RunHook("ThreadFini", [&] { return thread.ThreadFini(result); });

    t_Run = nullptr;
    t_Name = nullptr;
    AutoMutex lock(launch->m_Run->m_Lock);
    launch->m_Run->Finish(result);
    return nullptr;
}

Thread::Thread() : m_Run(std::make_shared<Run>()) {}

Thread::~Thread() {
    WaitUntilFinished();
}

Result_t Thread::Start(const std::string& name) {
    auto launch = std::make_unique<Run::Launch>(Run::Launch{this, m_Run, name});
    AutoMutex lock(m_Run->m_Lock);
    if (m_Run->m_Started) return RESULT_STATE;
    m_Run->m_Started = true;
    m_Run->m_Name = name;
    const int error = CreateDetached(m_Run->m_StackSize, &Run::Main, launch.get());
    if (error != 0) {
        const std::string reason = std::generic_category().message(error);
        const Result_t failure = RESULT_THREAD.WithMessage("Thread start failure: " + reason);
        m_Run->Finish(failure);
        return failure;
    }
    launch.release();  // the new thread's
    return RESULT_OK;
}

Result_t Thread::Stop(ui32_t limit_ms, bool wait) {
    const Result_t asked = RunHook("ThreadStop", [this] { return ThreadStop(); });
    if (!wait || IsFinished()) return asked;
    if (m_Run->IsOwnThread()) return RESULT_STATE;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(limit_ms);
    return m_Run->WaitUntilFinished(deadline) ? asked : RESULT_TIMEOUT;
}

void Thread::WaitUntilFinished() {
    assert(!m_Run->IsOwnThread());
    m_Run->WaitUntilFinished(std::nullopt);
}

bool Thread::IsFinished() const {
    return m_Run->m_Finished.load(std::memory_order_acquire);
}

Result_t Thread::Result() const {
    AutoMutex lock(m_Run->m_Lock);
    return m_Run->m_Result;
}

std::string Thread::Name() const {
    AutoMutex lock(m_Run->m_Lock);
    return m_Run->m_Name;
}

void Thread::StackSize(std::size_t bytes) {
    AutoMutex lock(m_Run->m_Lock);
    m_Run->m_StackSize = bytes;
}

std::string_view Thread::CurrentNameView() {
    if (t_Name != nullptr) return *t_Name;
    constinit thread_local std::array<char, KernelNameLen + 1> name{};
    if (pthread_getname_np(pthread_self(), name.data(), name.size()) != 0) return "?";
    return name.data();
}

std::string Thread::CurrentName() {
    return std::string(CurrentNameView());
}

}  // namespace Mirel
