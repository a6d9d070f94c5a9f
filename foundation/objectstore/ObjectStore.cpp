#include "objectstore/ObjectStore.h"

#include "zo/Signal.h"

#include <memory>
#include <set>

namespace zo {

TList<std::string> IObjectStore::listChildren(const std::string& container, const std::string& prefix)
{
    std::set<std::string> entries;
    for (const std::string& key : list(container, prefix, 0)) {
        const std::string entry = key.substr(prefix.size(), key.find('/', prefix.size()) - prefix.size());
        if (!entry.empty())
            entries.insert(entry);
    }
    return TList<std::string>(entries.begin(), entries.end());
}

std::optional<IObjectStore::Level> IObjectStore::listLevelInOneRequest(const std::string&, const std::string&)
{
    return std::nullopt;
}

std::optional<IObjectStore::SizedLevel> IObjectStore::listLevelWithSizes(const std::string&, const std::string&)
{
    return std::nullopt;
}

void runSync(const std::function<void(IObjectStore::Done)>& call)
{
    struct Outcome {
        CSignal done;
        P<CError> error;
    };
    auto outcome = std::make_shared<Outcome>();
    call([outcome](const CError* error) {
        outcome->error = error ? error->clone() : P<CError>();
        outcome->done.set();
    });
    outcome->done.wait(-1);
    if (outcome->error)
        outcome->error->throwClone();
}

} // namespace zo
