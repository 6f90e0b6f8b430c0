// Where calls to listeners may go, and how they are made: "Destinations" and "Deliveries" of the
// configuration.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "MR_types.h"
#include "VL_HTTP.h"
#include "VL_PList.h"
#include "config/Shape.h"

namespace Server {

/// How the callbacks that begin like "Match" are called.
struct Destination {
    std::string Match;  ///< "": all; "https://"; "https://host:port/path"; "/path" on the server itself
    bool Allow = true;
    Mirel::ui32_t Attempts = 1;
    Mirel::ui32_t Backoff_ms = 1000;  ///< about the wait after the first attempt; each further one doubles it
    Mirel::ui32_t Timeout_ms = 0;     ///< 0: the configuration's
    bool VerifyPeer = true;
    bool AllowPrivateAddresses = true;
    std::string CAFile;             ///< empty: the system's
    std::string ClientCertificate;  ///< a PEM file with certificate and key; empty: none
    Velmora::HeaderSet Headers;
    std::vector<std::string> SigningSecrets;  ///< the bytes themselves
    std::string SigningSecretFile;  ///< where they were read; empty: they stand in the configuration
    Mirel::ui32_t MaxInFlight = 64;
};

/// What is kept of deliveries.
struct DeliverySettings {
    bool On = false;                            ///< deliveries are kept, and made by the server's own thread
    std::string Journal;                        ///< empty: what waits is lost at the end
    Mirel::ui32_t Keep = 1000;                  ///< ended ones
    Mirel::ui64_t KeepBytes = 64u << 20;        ///< of them
    Mirel::ui32_t MaxWaiting = 10000;           ///< waiting and dead ones of each destination
    Mirel::ui64_t MaxWaitingBytes = 64u << 20;  ///< of them
    Mirel::ui32_t MaxAge_sec = 7 * 24 * 60 * 60;  ///< of waiting and dead ones
};

/// Whether the destination is that of a callback, as it is registered.
bool Fits(const Destination& destination, const std::string& callback);

/// A file of the configuration: the path made absolute.
using ResolvePath = std::function<std::string(const std::string&)>;

/// Reads the list; faults are added, with `base` for the list's own pointer.
std::vector<Destination> ReadDestinations(const Velmora::PListArray& list, const std::string& base,
                                          const ResolvePath& resolve, std::vector<Fault>& faults);
DeliverySettings ReadDeliverySettings(const Velmora::PListDict& dict, const std::string& base,
                                      const ResolvePath& resolve, std::vector<Fault>& faults);

/// As they are printed: secrets and the values of headers hidden.
Velmora::PListArray DestinationsInForce(const std::vector<Destination>& destinations);
Velmora::PListDict DeliveriesInForce(const DeliverySettings& settings);

/// Files that are named and cannot be read, or hold no certificate.
void CheckDestinations(const std::vector<Destination>& destinations, std::vector<Fault>& faults);
/// What can be had together: `max_callers` is for all destinations.
void CheckInFlight(const std::vector<Destination>& destinations, Mirel::ui32_t max_callers,
                   std::vector<Fault>& warnings);

}  // namespace Server
