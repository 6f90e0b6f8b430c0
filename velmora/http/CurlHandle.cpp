// The stock of handles, and what they share.
#include "http/CurlHandle.h"

#include <openssl/crypto.h>

#include <array>
#include <cstddef>
#include <functional>

#include "MR_mutex.h"

namespace Velmora {

namespace {

// A program may end while callers are under way: OpenSSL must not be taken down under their threads. Said
// when the library is loaded, since whoever uses OpenSSL first in a process decides.
[[maybe_unused]] const int OpensslStays = OPENSSL_init_crypto(OPENSSL_INIT_NO_ATEXIT, nullptr);

// libcurl and TLS set up, once and thread-safely. Never undone: detached threads may outlive main().
void InitCurl() {
    [[maybe_unused]] static const CURLcode done = curl_global_init(CURL_GLOBAL_ALL);
}

// Idle handles, at most `Limit` of them: each keeps two descriptors and some ten kilobytes.
class Stock {
  public:
    CURL* Take() {
        Mirel::AutoMutex lock(m_Lock);
        return m_Count == 0 ? nullptr : m_Idle[--m_Count];
    }

    // False, and `handle` still the caller's, where the stock is full.
    bool Put(CURL* handle) {
        Mirel::AutoMutex lock(m_Lock);
        if (m_Count == m_Idle.size()) return false;
        m_Idle[m_Count++] = handle;
        return true;
    }

  private:
    static constexpr std::size_t Limit = 64;
    Mirel::Mutex m_Lock;
    std::array<CURL*, Limit> m_Idle GUARDED_BY(m_Lock) = {};
    std::size_t m_Count GUARDED_BY(m_Lock) = 0;
};

Stock& TheStock() {
    static auto* const instance = new Stock;
    return *instance;
}

// One store with a mutex for each kind of data in it.
class Store {
  public:
    Store() : m_Share(curl_share_init()) {
        if (m_Share == nullptr) return;
        curl_share_setopt(m_Share, CURLSHOPT_USERDATA, this);
        curl_share_setopt(m_Share, CURLSHOPT_LOCKFUNC, Lock);
        curl_share_setopt(m_Share, CURLSHOPT_UNLOCKFUNC, Unlock);
        // A store that lacks one of them works; what it lacks is then made anew for each exchange.
        curl_share_setopt(m_Share, CURLSHOPT_SHARE, CURL_LOCK_DATA_DNS);
        curl_share_setopt(m_Share, CURLSHOPT_SHARE, CURL_LOCK_DATA_SSL_SESSION);
    }

    CURLSH* Get() const { return m_Share; }

  private:
    static void Lock(CURL*, curl_lock_data data, curl_lock_access, void* store) NO_THREAD_SAFETY_ANALYSIS {
        static_cast<Store*>(store)->m_Locks[data].Lock();
    }
    static void Unlock(CURL*, curl_lock_data data, void* store) NO_THREAD_SAFETY_ANALYSIS {
        static_cast<Store*>(store)->m_Locks[data].Unlock();
    }

    std::array<Mirel::Mutex, CURL_LOCK_DATA_LAST> m_Locks;
    CURLSH* const m_Share;
};

}  // namespace

CurlHandle::CurlHandle() : m_Handle(TheStock().Take()) {
    if (m_Handle != nullptr) return;
    InitCurl();
    m_Handle = curl_easy_init();
}

CurlHandle::~CurlHandle() {
    if (m_Reusable) curl_easy_reset(m_Handle);
    if (!m_Reusable || !TheStock().Put(m_Handle)) curl_easy_cleanup(m_Handle);
}

CURLSH* SharedCurlStore(const std::string& authority) {
    // One store keeps the TLS sessions of eight servers; several keep those of many, with less waiting.
    constexpr std::size_t StoreCount = 16;
    InitCurl();
    static auto* const stores = new std::array<Store, StoreCount>;
    return (*stores)[std::hash<std::string>()(authority) % StoreCount].Get();
}

}  // namespace Velmora
