// ItemStore: the port to a durable table of small secret items ("generic passwords"), the Linux
// counterpart of a platform keychain's generic-password class.
//
// An item carries up to five attributes: account, service and generic (texts), label (bytes) and
// access group (text), plus an accessibility text, a secret value and its creation order. Every
// attribute may be absent; an absent attribute is not the same as an empty one.
//
// Identity: at most one item exists per (account, service, access group), absent counting as a
// value of its own. The generic attribute and the label are not part of the identity, as with the
// generic-password class of platform keychains: an add that differs from an existing item only in
// its generic attribute is a duplicate.
//
// Queries: each attribute of an ItemQuery that is present must equal the item's (an item that
// lacks the attribute does not match); an absent one matches anything. An empty query matches every
// item.
//
// Default access group: a store may be set up with one; an item added without an access group then
// gets it, as a platform keychain puts such items in the application's first access group.
//
// Order: items are ordered by creation time, ties (several items in one clock tick) broken by
// insertion order, so the order is total. "First" means oldest, listings are newest first.
//
// Transactions: between beginTransaction and commitTransaction every write of this object (and of
// any other object the store says shares its transaction) is held back and lands in one durable
// commit, or, after rollbackTransaction, a failed commit or a killed process, not at all. A
// transaction is not nested: a second begin while one is open is refused. A write that fails
// inside a transaction spoils it: the commit then answers storeError and nothing lands.
//
// Thread-safety: one object serves one thread at a time (calls must not overlap). Separate objects,
// even on the same file, may be used from different threads and processes at once.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "corvane/secret_bytes.h"

namespace corvane {

// Outcome of a store call. `notFound` answers a query that matched nothing (the platform
// keychain's errSecItemNotFound), `duplicate` an add whose identity is taken, `storeError` any
// failure of the store itself (I/O, corruption, lock time-out, a failing fake).
// Dropping one drops a failure, so the type is [[nodiscard]].
enum class StoreStatus { ok, notFound, duplicate, storeError };

struct ItemQuery {
  std::optional<std::string> account = std::nullopt;
  std::optional<std::string> service = std::nullopt;
  std::optional<std::string> generic = std::nullopt;
  std::optional<std::vector<uint8_t>> label = std::nullopt;
  std::optional<std::string> accessGroup = std::nullopt;
};

// The attributes an item is written with; an absent attribute is not set on the item.
struct ItemAttributes {
  std::optional<std::string> account = std::nullopt;
  std::optional<std::string> service = std::nullopt;
  std::optional<std::string> generic = std::nullopt;
  std::optional<std::vector<uint8_t>> label = std::nullopt;
  std::optional<std::string> accessGroup = std::nullopt;
  std::optional<std::string> accessibility = std::nullopt;

  // The query that matches exactly the attributes set here (accessibility is not queried).
  ItemQuery asQuery() const { return {account, service, generic, label, accessGroup}; }
};

class ItemStore {
 public:
  virtual ~ItemStore() = default;

  // Adds an item. `duplicate` when an item with the same (account, service, access group) exists.
  virtual StoreStatus add(const ItemAttributes& item, const SecretBytes& value) = 0;

  // Atomically replaces the value of every item matching item.asQuery(), or, when none matches,
  // adds the item (which may then answer `duplicate`, as add does).
  virtual StoreStatus upsert(const ItemAttributes& item, const SecretBytes& value) = 0;

  // The value of the oldest matching item, into `value` when it is not null.
  virtual StoreStatus findFirst(const ItemQuery& query, SecretBytes* value) = 0;

  // The attributes of the oldest matching item (accessibility included), into `attributes` when it
  // is not null. This is how a caller learns what the store filled in on add, such as a default
  // access group.
  virtual StoreStatus findFirstAttributes(const ItemQuery& query, ItemAttributes* attributes) = 0;

  // The services (or accounts) of the matching items, one entry per item, newest first. Items that
  // lack the attribute are left out; `notFound` when no entry remains.
  virtual StoreStatus listServices(const ItemQuery& query, std::vector<std::string>* services) = 0;
  virtual StoreStatus listAccounts(const ItemQuery& query, std::vector<std::string>* accounts) = 0;

  // Replaces the value of every matching item; `notFound` when none matches.
  virtual StoreStatus update(const ItemQuery& query, const SecretBytes& value) = 0;

  // Deletes every matching item; `notFound` when none matches (nothing was changed, which callers
  // may treat as success), `storeError` when the store failed and nothing was deleted.
  virtual StoreStatus remove(const ItemQuery& query) = 0;

  // Opens a transaction: `ok`, or `storeError` when one is open already or the store fails.
  virtual StoreStatus beginTransaction() = 0;
  // Makes every write since beginTransaction durable in one commit: `ok`; `storeError` (and
  // nothing of the transaction lands) when a write inside it failed or the commit fails, or when
  // no transaction is open.
  virtual StoreStatus commitTransaction() = 0;
  // Drops every write since beginTransaction; nothing when no transaction is open.
  virtual void rollbackTransaction() = 0;

  // The label-wide wipe: deletes every item with this label and access group, whatever its
  // account, service and generic.
  StoreStatus removeLabeled(std::vector<uint8_t> label, std::optional<std::string> accessGroup) {
    ItemQuery query;
    query.label = std::move(label);
    query.accessGroup = std::move(accessGroup);
    return remove(query);
  }
};

// Opens a transaction on `store` for the life of the scope: rolled back when the scope ends
// without a commit that succeeded.
class ItemStoreTransaction {
 public:
  explicit ItemStoreTransaction(ItemStore& store)
      : store_(store), open_(store.beginTransaction() == StoreStatus::ok) {}
  ~ItemStoreTransaction() { rollback(); }
  ItemStoreTransaction(const ItemStoreTransaction&) = delete;
  ItemStoreTransaction& operator=(const ItemStoreTransaction&) = delete;

  // Whether the transaction was opened (false: the store refused or failed).
  [[nodiscard]] bool isOpen() const { return open_; }
  // `storeError` when the transaction was never opened or its commit failed.
  [[nodiscard]] StoreStatus commit() {
    if (!open_) return StoreStatus::storeError;
    open_ = false;
    return store_.commitTransaction();
  }
  void rollback() {
    if (open_) store_.rollbackTransaction();
    open_ = false;
  }

 private:
  ItemStore& store_;
  bool open_;
};

}  // namespace corvane
