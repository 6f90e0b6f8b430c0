// Owners of what the engine's client hands out, and its reasons as text.
#pragma once

#include <nats/nats.h>

#include <memory>
#include <string>
#include <string_view>

namespace Cluster {

template <auto Destroy>
struct Destroyer {
    template <class T>
    void operator()(T* object) const {
        Destroy(object);
    }
};

template <class T, auto Destroy>
using Held = std::unique_ptr<T, Destroyer<Destroy>>;

using HeldOptions = Held<natsOptions, natsOptions_Destroy>;
using HeldConnection = Held<natsConnection, natsConnection_Destroy>;
using HeldContext = Held<jsCtx, jsCtx_Destroy>;
using HeldMessage = Held<natsMsg, natsMsg_Destroy>;
using HeldSubscription = Held<natsSubscription, natsSubscription_Destroy>;
using HeldStreamInfo = Held<jsStreamInfo, jsStreamInfo_Destroy>;
using HeldConsumerInfo = Held<jsConsumerInfo, jsConsumerInfo_Destroy>;
using HeldMetaData = Held<jsMsgMetaData, jsMsgMetaData_Destroy>;
using HeldAccountInfo = Held<jsAccountInfo, jsAccountInfo_Destroy>;

/// A function of the client that fills a pointer: Take(held, js_GetStreamInfo, js, name, …).
template <class T, auto Destroy, class Function, class... Arguments>
natsStatus Take(Held<T, Destroy>& held, Function function, Arguments... arguments) {
    T* object = nullptr;
    const natsStatus status = function(&object, arguments...);
    held.reset(object);
    return status;
}

inline std::string ReasonOf(natsStatus status) {
    const char* last = nats_GetLastError(nullptr);
    const std::string_view text = last != nullptr && *last != '\0' ? last : natsStatus_GetText(status);
    // Without the place in the client's source.
    const std::size_t place = text.starts_with('(') ? text.find("): ") : text.npos;
    return std::string(place == text.npos ? text : text.substr(place + 3));
}

}  // namespace Cluster
