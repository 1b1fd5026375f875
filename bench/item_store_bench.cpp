// The SQLite item store: a look-up and an upsert must cost about the same with 10 items as with
// 100000 (the goal is within 1.5x), and what one durable write costs in each synchronous mode.
#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "linux/sqlite_item_store.h"

namespace {

using corvane::ItemAttributes;
using corvane::SecretBytes;
using corvane::StoreStatus;
using corvane::linux_platform::SqliteItemStore;

// Items shaped like the library's own: per-user accounts and services, one label and group.
ItemAttributes benchItem(size_t i) {
  ItemAttributes item;
  item.account = "3f8a9c" + std::to_string(i) + ".0F3D#0002";
  item.service = "AUTHNR.data.key-" + std::to_string(i);
  item.generic = "AUTHNR.data.3f8a9c" + std::to_string(i);
  const std::string label = "com.example.bank.Corvane";
  item.label = std::vector<uint8_t>(label.begin(), label.end());
  item.accessGroup = "SEED123456.com.example.bank";
  item.accessibility = "WhenPasscodeSetThisDeviceOnly";
  return item;
}

SecretBytes benchValue(size_t i) {
  std::vector<uint8_t> value(120);
  for (size_t k = 0; k < value.size(); ++k) value[k] = static_cast<uint8_t>(i * 31 + k);
  return SecretBytes(value);
}

// One populated store per (size, mode), built once per process in a temporary folder that is
// removed at exit.
class StoreCache {
 public:
  ~StoreCache() {
    stores_.clear();
    std::error_code ec;
    if (!root_.empty()) std::filesystem::remove_all(root_, ec);
  }

  SqliteItemStore* get(size_t count, SqliteItemStore::Synchronous mode) {
    const auto key = std::make_pair(count, mode);
    auto it = stores_.find(key);
    if (it != stores_.end()) return it->second.get();
    if (root_.empty()) {
      std::string pattern =
          (std::filesystem::temp_directory_path() / "corvane-bench-XXXXXX").string();
      if (mkdtemp(pattern.data()) == nullptr) return nullptr;
      root_ = pattern;
    }
    SqliteItemStore::Options options;
    options.synchronous = mode;
    const std::string name = "items-" + std::to_string(count) + "-" +
                             (mode == SqliteItemStore::Synchronous::full ? "full" : "normal");
    auto store = SqliteItemStore::open(root_ / name / "items.sqlite", options, nullptr);
    if (!store) return nullptr;
    std::vector<std::pair<ItemAttributes, SecretBytes>> items;
    items.reserve(count);
    for (size_t i = 0; i < count; ++i) items.emplace_back(benchItem(i), benchValue(i));
    if (store->addAll(items) != StoreStatus::ok) return nullptr;
    return (stores_[key] = std::move(store)).get();
  }

 private:
  std::filesystem::path root_;
  std::map<std::pair<size_t, SqliteItemStore::Synchronous>, std::unique_ptr<SqliteItemStore>>
      stores_;
};

StoreCache& cache() {
  static StoreCache instance;
  return instance;
}

// `distinct` item indexes spread evenly over the whole store.
std::vector<size_t> spreadIndexes(size_t count, size_t distinct) {
  std::vector<size_t> indexes;
  for (size_t k = 0; k < distinct; ++k) indexes.push_back((k * 7919 + 13) % count);
  return indexes;
}

// Look-ups rotating over `distinct` items of a store of state.range(0) items. Measured in CPU
// time: a look-up never waits for the disk, and wall time on a shared machine mostly measures the
// other processes.
void findLoop(benchmark::State& state, size_t distinct) {
  const size_t count = static_cast<size_t>(state.range(0));
  SqliteItemStore* store = cache().get(count, SqliteItemStore::Synchronous::full);
  if (store == nullptr) return state.SkipWithError("cannot build the store");
  std::vector<corvane::ItemQuery> queries;
  for (size_t i : spreadIndexes(count, distinct)) queries.push_back(benchItem(i).asQuery());
  size_t next = 0;
  SecretBytes value;
  for (auto _ : state) {
    if (store->findFirst(queries[next++ % queries.size()], &value) != StoreStatus::ok) {
      return state.SkipWithError("item missing");
    }
    benchmark::DoNotOptimize(value.size());
  }
}

// The working set of one registration or authentication: a user's handful of items (16 here),
// spread over the store, looked up again and again.
void BM_ItemStoreFind(benchmark::State& state) {
  findLoop(state, 16);
}
BENCHMARK(BM_ItemStoreFind)->Arg(10)->Arg(100000);

// For comparison: 1024 items spread over the store, so that most look-ups touch pages that are no
// longer in the processor's caches. This shows the memory hierarchy, not the algorithm.
void BM_ItemStoreFindSpread(benchmark::State& state) {
  findLoop(state, 1024);
}
BENCHMARK(BM_ItemStoreFindSpread)->Arg(10)->Arg(100000);

// Insert-or-update of an existing item's value: one durable transaction.
void BM_ItemStoreUpsert(benchmark::State& state) {
  const size_t count = static_cast<size_t>(state.range(0));
  SqliteItemStore* store = cache().get(count, SqliteItemStore::Synchronous::full);
  if (store == nullptr) return state.SkipWithError("cannot build the store");
  std::vector<ItemAttributes> items;
  for (size_t i : spreadIndexes(count, 16)) items.push_back(benchItem(i));
  size_t next = 0;
  for (auto _ : state) {
    const size_t k = next++;
    if (store->upsert(items[k % items.size()], benchValue(k)) != StoreStatus::ok) {
      return state.SkipWithError("upsert failed");
    }
  }
}
BENCHMARK(BM_ItemStoreUpsert)->Arg(10)->Arg(100000)->UseRealTime()->MinTime(1.0);

// The same upsert on a small store in each synchronous mode: 0 = NORMAL, 1 = FULL.
void BM_ItemStoreDurableWrite(benchmark::State& state) {
  const auto mode = state.range(0) == 1 ? SqliteItemStore::Synchronous::full
                                        : SqliteItemStore::Synchronous::normal;
  SqliteItemStore* store = cache().get(10, mode);
  if (store == nullptr) return state.SkipWithError("cannot build the store");
  size_t next = 0;
  for (auto _ : state) {
    const size_t k = next++;
    if (store->upsert(benchItem(k % 10), benchValue(k)) != StoreStatus::ok) {
      return state.SkipWithError("upsert failed");
    }
  }
}
BENCHMARK(BM_ItemStoreDurableWrite)->ArgName("full")->Arg(0)->Arg(1)->UseRealTime()->MinTime(1.0);

}  // namespace
