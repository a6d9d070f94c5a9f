#include "RadosTestCluster.h"

#include <rados/librados.hpp>

#include <atomic>
#include <cstdlib>
#include <stdexcept>
#include <unistd.h>

namespace testsupport {

std::string cephTestPool()
{
    const char* pool = std::getenv("BRICKDISK_CEPH_POOL");
    if (!pool || !*pool || !std::getenv("CEPH_CONF"))
        throw std::runtime_error("No Ceph test cluster: run eval \"$(scripts/ceph-test-cluster.sh start)\" first.");
    return pool;
}

zo::RadosOptions cephTestOptions(int threadCount)
{
    cephTestPool();
    zo::RadosOptions options;
    options.configFile = std::getenv("CEPH_CONF");
    options.connectTimeoutSeconds = 10;
    options.operationTimeoutSeconds = 20;
    options.threadCount = threadCount;
    return options;
}

zo::CURI uniqueRadosFolder(const std::string& label)
{
    static std::atomic<int> counter{0};
    return zo::CURI(zo::String::fromUTF8("rados://" + cephTestPool() + "/" + label + "-" + std::to_string(::getpid()) +
                                         "-" + std::to_string(++counter)));
}

void removeRadosFolder(const zo::CURI& folder)
{
    const std::string text = folder.toString(true).toUTF8();
    const size_t poolStart = std::string("rados://").size();
    const size_t slash = text.find('/', poolStart);
    const std::string pool = text.substr(poolStart, slash - poolStart);
    const std::string prefix = text.substr(slash + 1);
    librados::Rados cluster;
    if (cluster.init2("client.admin", "ceph", 0) < 0 || cluster.conf_read_file(std::getenv("CEPH_CONF")) < 0 ||
        cluster.connect() < 0)
        return;
    librados::IoCtx context;
    if (cluster.ioctx_create(pool.c_str(), context) == 0) {
        for (auto object = context.nobjects_begin(); object != context.nobjects_end(); ++object) {
            if (object->get_oid().compare(0, prefix.size(), prefix) == 0)
                context.remove(object->get_oid());
        }
    }
    context.close();
    cluster.shutdown();
}

} // namespace testsupport
