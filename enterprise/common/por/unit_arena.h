#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <new>
#include <utility>

#include "enterprise/common/por/composite_value_holder.h"
#include "enterprise/common/por/fwd.h"
#include "enterprise/common/por/property.h"
#include "enterprise/common/por/traits.h"
#include "enterprise/common/por/traits_holder.h"
#include "enterprise/common/por/unit.h"
#include "enterprise/common/por/visitor.h"

// Trees whose nodes lie side by side in memory of their own: an ArenaRoot owns the memory, and all
// below it ends with it. To their users they are units like any other and may be changed at will.
//
// No node can leave its tree, and a tree can be changed only through its root, from which every
// reference that allows a change is reached. So a root that was never asked for such a reference
// ends without a look at its nodes: it releases what they hold outside of the arena, which was
// written down when they were made, and then the memory. A root that was asked ends as a tree does,
// node by node; nodes are then destroyed where they lie.
namespace Por::Detail {

// Memory that is given out piece by piece and released at once. A plain value: whoever has it calls
// Release once.
class Arena {
 public:
  // Makes ready for trees of about `expected` bytes.
  explicit Arena(std::size_t expected);

  // Aligned for pointers and numbers. Throws std::bad_alloc.
  void* Allocate(std::size_t size) {
    size = (size + 7) & ~std::size_t{7};
    if (size > static_cast<std::size_t>(end_ - at_)) AddChunk(size);
    char* const memory = at_;
    at_ += size;
    return memory;
  }

  template <class T, class... Arguments>
  T* Make(Arguments&&... arguments) {
    static_assert(alignof(T) <= 8);
    return new (Allocate(sizeof(T))) T(std::forward<Arguments>(arguments)...);
  }

  // Bytes that were given out, with what the chunks themselves take and what was left of former
  // ones.
  std::size_t GetTaken() const { return chunks_->total - static_cast<std::size_t>(end_ - at_); }

  // Has `function` called with `object` when the arena is released with its cleanups. Taken before
  // the object holds anything: throws std::bad_alloc.
  void OnRelease(void (*function)(void* object), void* object) {
    cleanups_ = new (Allocate(sizeof(Cleanup))) Cleanup{cleanups_, function, object};
  }

  void RunCleanups() noexcept {
    for (const Cleanup* cleanup = cleanups_; cleanup != nullptr; cleanup = cleanup->next) {
      cleanup->function(cleanup->object);
    }
  }
  void Release() noexcept;

 private:
  struct Chunk {
    Chunk* next;
    std::size_t size;   // as a whole
    std::size_t total;  // of this chunk and those behind it
  };
  struct Cleanup {
    const Cleanup* next;
    void (*function)(void* object);
    void* object;
  };

  void AddChunk(std::size_t size);
  static void ReleaseChunks(Chunk* chunks) noexcept;
  static void ReleaseLate() noexcept;

  // Of this thread, released as soon as no list of a dying tree can lie in them any more.
  static thread_local Chunk* late_chunks_;

  Chunk* chunks_ = nullptr;
  char* at_ = nullptr;
  char* end_ = nullptr;
  const Cleanup* cleanups_ = nullptr;
};

// A unit below the root.
template <class Holder>
class ArenaUnit final : public Construction::Unit {
 public:
  template <class... Arguments>
  explicit ArenaUnit(Arguments&&... arguments) : value_(std::forward<Arguments>(arguments)...) {}

  void Accept(View::UnitReader& reader) const override { reader.Visit(value_); }
  const View::Traits& GetTraits() const override { return traits_; }
  void Accept(Modification::UnitWriter& writer) override { writer.Visit(value_); }
  void Accept(Construction::UnitBuilder& builder) override { builder.Visit(value_); }
  TraitsHolder& GetTraits() override { return traits_; }
  Holder& GetHolder() { return value_; }

  static void operator delete(ArenaUnit* self, std::destroying_delete_t) { self->~ArenaUnit(); }

 private:
  Holder value_;
  TraitsHolder traits_;
};

class ArenaProperty final : public Construction::Property {
 public:
  // `name` is immortal. Takes the value over.
  ArenaProperty(const Name& name, Construction::Unit& value) : name_(&name), value_(&value) {}
  ~ArenaProperty() override { delete value_; }

  const Name& GetName() const override { return *name_; }
  const View::Unit& GetValue() const override { return *value_; }
  Construction::Unit& GetValue() override { return *value_; }

  static void operator delete(ArenaProperty* self, std::destroying_delete_t) {
    self->~ArenaProperty();
  }

 private:
  const Name* name_;
  Construction::Unit* value_;
};

class ArenaTrait final : public View::Trait {
 public:
  // `name` is immortal. Takes the value over.
  ArenaTrait(const Name& name, Construction::Unit& value) : name_(&name), value_(&value) {}
  ~ArenaTrait() override { delete value_; }

  const Name& GetName() const override { return *name_; }
  const View::Unit& GetValue() const override { return *value_; }

  static void operator delete(ArenaTrait* self, std::destroying_delete_t) { self->~ArenaTrait(); }

 private:
  const Name* name_;
  Construction::Unit* value_;
};

// The root, a composite. It lies in its own arena.
class ArenaRoot final : public Construction::Unit {
 public:
  explicit ArenaRoot(const Arena& arena) : arena_(arena) {}

  void Accept(View::UnitReader& reader) const override { reader.Visit(value_); }
  const View::Traits& GetTraits() const override { return traits_; }
  void Accept(Modification::UnitWriter& writer) override {
    MarkChangeable();
    writer.Visit(value_);
  }
  void Accept(Construction::UnitBuilder& builder) override {
    MarkChangeable();
    builder.Visit(value_);
  }
  TraitsHolder& GetTraits() override {
    MarkChangeable();
    return traits_;
  }

  // For whoever builds the tree.
  Arena& GetArena() { return arena_; }
  CompositeValueHolder& GetHolder() { return value_; }
  TraitsHolder& GetTraitsHolder() { return traits_; }

  static void operator delete(ArenaRoot* self, std::destroying_delete_t) {
    Arena arena = self->arena_;
    if (self->changeable_.load(std::memory_order_relaxed)) {
      self->~ArenaRoot();
    } else {
      arena.RunCleanups();
    }
    arena.Release();
  }

 private:
  void MarkChangeable() { changeable_.store(true, std::memory_order_relaxed); }

  Arena arena_;
  CompositeValueHolder value_;
  TraitsHolder traits_;
  // Two threads that only read may both ask for the changing face of it.
  std::atomic<bool> changeable_{false};
};

}  // namespace Por::Detail
