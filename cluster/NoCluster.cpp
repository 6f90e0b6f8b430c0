// A build without the engine's client: there is no cluster to be had.
#include "Cluster.h"

namespace Cluster {

namespace {

constexpr const char* NotBuilt =
    "this velmora-server was built without the cluster (libnats-dev was not there)";

}  // namespace

Result_t MakeNode(const Settings&, Mirel::ui32_t, std::unique_ptr<ICluster>&) {
    return Mirel::RESULT_STATE.WithMessage(NotBuilt);
}

std::vector<std::string> CheckEngine(const Settings&) {
    return {NotBuilt};
}

}  // namespace Cluster
