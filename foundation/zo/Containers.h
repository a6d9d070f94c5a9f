// The ordinary ordered containers used across the system.
#pragma once

#include <list>
#include <map>
#include <set>
#include <vector>

namespace zo {

template <class T>
using TList = std::list<T>;
template <class K, class V>
using TMap = std::map<K, V>;
template <class T>
using TSet = std::set<T>;
template <class T>
using TArray = std::vector<T>;

} // namespace zo
