// What may be replaced while others use it.
#pragma once

#include <memory>
#include <utility>

#include "MR_mutex.h"

namespace Server {

/// Holds one value that is shared: whoever got it goes on with it after another has taken its place. Usable
/// from any thread.
template <class T>
class Replaceable {
  public:
    std::shared_ptr<T> Get() const {
        Mirel::AutoMutex lock(m_Lock);
        return m_Value;
    }
    void Set(std::shared_ptr<T> value) {
        Mirel::AutoMutex lock(m_Lock);
        m_Value.swap(value);
    }

  private:
    mutable Mirel::Mutex m_Lock;
    std::shared_ptr<T> m_Value GUARDED_BY(m_Lock);
};

}  // namespace Server
