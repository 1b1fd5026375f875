// FakeItemStore: an in-memory ItemStore with the same matching, identity and ordering rules as the
// SQLite store, plus fault switches and a call history for tests of the layers above it.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "corvane/ports/item_store.h"

namespace corvane::testing {

class FakeItemStore : public ItemStore {
 public:
  enum class Op {
    add,
    upsert,
    findFirst,
    listServices,
    listAccounts,
    update,
    remove,
    findFirstAttributes,
    beginTransaction,
    commitTransaction,
    rollbackTransaction
  };
  struct Call {
    Op op;
    ItemQuery query;  // for add and upsert: the item's own attributes
    StoreStatus status;
  };
  struct Item {
    ItemAttributes attributes;
    SecretBytes value;
    int64_t created;
    uint64_t sequence;
  };

  // Fault switches. Writes are add, upsert, update, remove and the commit of a transaction; reads
  // the other four. Update and remove find their items first, so a read fault fails them too. A
  // failing call changes nothing and answers storeError; a failing write inside a transaction
  // spoils it (its commit fails and nothing of it lands), as in the SQLite store.
  // The `n`th write from now fails (1: the next one); 0 switches it off.
  void failWriteNumber(int n) { writesUntilFailure_ = n; }
  void failAllWrites(bool fail) { failAllWrites_ = fail; }
  void failAllReads(bool fail) { failAllReads_ = fail; }
  // Reads whose query names this service fail; absent switches it off.
  void failReadsOfService(std::optional<std::string> service) {
    failReadService_ = std::move(service);
  }
  // Creation times; by default each new item is one tick after the previous one.
  void setClock(std::function<int64_t()> clock) { clock_ = std::move(clock); }
  // The access group given to items added without one; none by default.
  void setDefaultAccessGroup(std::optional<std::string> group) {
    defaultAccessGroup_ = std::move(group);
  }

  const std::vector<Call>& calls() const { return calls_; }
  void clearCalls() { calls_.clear(); }
  const std::vector<Item>& items() const { return items_; }
  int writeCount() const { return writes_; }
  // Transactions committed, and whether one is open.
  int commitCount() const { return commits_; }
  bool inTransaction() const { return snapshot_.has_value(); }

  StoreStatus beginTransaction() override {
    if (snapshot_) return record(Op::beginTransaction, {}, StoreStatus::storeError);
    snapshot_ = Snapshot{items_, tick_, sequence_};
    spoiled_ = false;
    return record(Op::beginTransaction, {}, StoreStatus::ok);
  }

  StoreStatus commitTransaction() override {
    if (!snapshot_) return record(Op::commitTransaction, {}, StoreStatus::storeError);
    if (writeFault() || spoiled_) {
      restore();
      return record(Op::commitTransaction, {}, StoreStatus::storeError);
    }
    snapshot_.reset();
    ++commits_;
    return record(Op::commitTransaction, {}, StoreStatus::ok);
  }

  void rollbackTransaction() override {
    if (snapshot_) restore();
    record(Op::rollbackTransaction, {}, StoreStatus::ok);
  }

  StoreStatus add(const ItemAttributes& item, const SecretBytes& value) override {
    return record(Op::add, item.asQuery(),
                  writeFault() ? StoreStatus::storeError : insert(item, value));
  }

  StoreStatus upsert(const ItemAttributes& item, const SecretBytes& value) override {
    if (writeFault()) return record(Op::upsert, item.asQuery(), StoreStatus::storeError);
    StoreStatus status = replace(item.asQuery(), value);
    if (status == StoreStatus::notFound) status = insert(item, value);
    return record(Op::upsert, item.asQuery(), status);
  }

  StoreStatus findFirst(const ItemQuery& query, SecretBytes* value) override {
    if (readFault(query)) return record(Op::findFirst, query, StoreStatus::storeError);
    for (const Item& item : items_) {  // kept in insertion order: the first match is the oldest
      if (!matches(item, query)) continue;
      if (value != nullptr) *value = item.value;
      return record(Op::findFirst, query, StoreStatus::ok);
    }
    return record(Op::findFirst, query, StoreStatus::notFound);
  }

  StoreStatus findFirstAttributes(const ItemQuery& query, ItemAttributes* attributes) override {
    if (readFault(query)) {
      return record(Op::findFirstAttributes, query, StoreStatus::storeError);
    }
    for (const Item& item : items_) {
      if (!matches(item, query)) continue;
      if (attributes != nullptr) *attributes = item.attributes;
      return record(Op::findFirstAttributes, query, StoreStatus::ok);
    }
    return record(Op::findFirstAttributes, query, StoreStatus::notFound);
  }

  StoreStatus listServices(const ItemQuery& query, std::vector<std::string>* services) override {
    return record(Op::listServices, query, list(query, &ItemAttributes::service, services));
  }

  StoreStatus listAccounts(const ItemQuery& query, std::vector<std::string>* accounts) override {
    return record(Op::listAccounts, query, list(query, &ItemAttributes::account, accounts));
  }

  StoreStatus update(const ItemQuery& query, const SecretBytes& value) override {
    return record(
        Op::update, query,
        readFault(query) || writeFault() ? StoreStatus::storeError : replace(query, value));
  }

  StoreStatus remove(const ItemQuery& query) override {
    if (readFault(query) || writeFault()) return record(Op::remove, query, StoreStatus::storeError);
    const size_t before = items_.size();
    std::erase_if(items_, [&](const Item& item) { return matches(item, query); });
    return record(Op::remove, query,
                  items_.size() < before ? StoreStatus::ok : StoreStatus::notFound);
  }

  static bool matches(const Item& item, const ItemQuery& query) {
    const ItemAttributes& a = item.attributes;
    return (!query.account || a.account == query.account) &&
           (!query.service || a.service == query.service) &&
           (!query.generic || a.generic == query.generic) &&
           (!query.label || a.label == query.label) &&
           (!query.accessGroup || a.accessGroup == query.accessGroup);
  }

 private:
  struct Snapshot {
    std::vector<Item> items;
    int64_t tick;
    uint64_t sequence;
  };

  void restore() {
    items_ = std::move(snapshot_->items);
    tick_ = snapshot_->tick;
    sequence_ = snapshot_->sequence;
    snapshot_.reset();
  }

  StoreStatus record(Op op, ItemQuery query, StoreStatus status) {
    const bool write = op == Op::add || op == Op::upsert || op == Op::update || op == Op::remove;
    if (write && status == StoreStatus::storeError && snapshot_) spoiled_ = true;
    calls_.push_back({op, std::move(query), status});
    return status;
  }

  bool readFault(const ItemQuery& query) const {
    return failAllReads_ || (failReadService_ && query.service == failReadService_);
  }

  bool writeFault() {
    ++writes_;
    if (writesUntilFailure_ > 0 && --writesUntilFailure_ == 0) return true;
    return failAllWrites_;
  }

  StoreStatus insert(const ItemAttributes& given, const SecretBytes& value) {
    ItemAttributes item = given;
    if (!item.accessGroup) item.accessGroup = defaultAccessGroup_;
    for (const Item& existing : items_) {
      const ItemAttributes& a = existing.attributes;
      if (a.account == item.account && a.service == item.service &&
          a.accessGroup == item.accessGroup) {
        return StoreStatus::duplicate;
      }
    }
    const int64_t created = clock_ ? clock_() : ++tick_;
    items_.push_back({item, value, created, ++sequence_});
    return StoreStatus::ok;
  }

  StoreStatus replace(const ItemQuery& query, const SecretBytes& value) {
    bool any = false;
    for (Item& item : items_) {
      if (!matches(item, query)) continue;
      item.value = value;
      any = true;
    }
    return any ? StoreStatus::ok : StoreStatus::notFound;
  }

  StoreStatus list(const ItemQuery& query, std::optional<std::string> ItemAttributes::*member,
                   std::vector<std::string>* out) {
    if (readFault(query)) return StoreStatus::storeError;
    std::vector<const Item*> found;
    for (const Item& item : items_) {
      if (matches(item, query) && (item.attributes.*member).has_value()) found.push_back(&item);
    }
    if (found.empty()) return StoreStatus::notFound;
    std::sort(found.begin(), found.end(), [](const Item* x, const Item* y) {
      return std::pair(x->created, x->sequence) > std::pair(y->created, y->sequence);
    });
    if (out != nullptr) {
      out->clear();
      for (const Item* item : found) out->push_back(*(item->attributes.*member));
    }
    return StoreStatus::ok;
  }

  std::vector<Item> items_;
  std::vector<Call> calls_;
  std::function<int64_t()> clock_;
  std::optional<std::string> defaultAccessGroup_;
  int64_t tick_ = 0;
  uint64_t sequence_ = 0;
  int writes_ = 0;
  int commits_ = 0;
  std::optional<Snapshot> snapshot_;
  bool spoiled_ = false;
  int writesUntilFailure_ = 0;
  bool failAllWrites_ = false;
  bool failAllReads_ = false;
  std::optional<std::string> failReadService_;
};

}  // namespace corvane::testing
