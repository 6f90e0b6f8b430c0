// An answer that is not there yet when the handler returns.
#pragma once

#include <functional>
#include <optional>

#include "MR_mutex.h"
#include "http/Http.h"

namespace Server {

/// Shared by who will give the answer and the connection that waits for it, without a thread. All operations
/// may be called from any thread.
class LaterAnswer {
  public:
    /// Once. Where nobody waits any more it goes nowhere.
    void Give(HttpResponse response);

    /// False where the answer is there; otherwise `resume` is called when it is, on whatever thread gives it.
    bool Wait(std::function<void()> resume);
    /// `resume` will not be called from now on.
    void Forget();
    /// The answer, which must be there.
    HttpResponse Take();

  private:
    Mirel::Mutex m_Lock;
    std::optional<HttpResponse> m_Response GUARDED_BY(m_Lock);
    std::function<void()> m_Resume GUARDED_BY(m_Lock);
};

}  // namespace Server
