// The intrusive list: linking, iterator repair by every route, nesting, deep
// copies into tracked heaps, and a long random run against a reference model.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "LIST.h"
#include "sysman.h"
#include "test_support.h"

namespace {

using kvtest::abort_text;

int g_live = 0;  // Items alive

struct Item : DLlistElt {
  int v;
  explicit Item(int value) : v(value) { ++g_live; }
  Item(const Item& other) : DLlistElt(other), v(other.v) { ++g_live; }
  ~Item() override { --g_live; }
  DLlistElt* DupElt(heap* h) const override { return new (h, "tests/list", __LINE__) Item(*this); }
  using DLlistElt::Next, DLlistElt::Parent;
};

struct Plain : DLlistElt {};  // cannot be copied

struct Branch : DLlist {
  int tag;
  explicit Branch(int t, bool owns = true) : DLlist(owns), tag(t) {}
  DLlistElt* DupElt(heap* h) const override { return new (h, "tests/list", __LINE__) Branch(tag); }
  using DLlist::First, DLlist::Get;
};

enum Start { kTop, kFirst, kLast };

struct Iter : DLlistIter {
  explicit Iter(const DLlist* l, Start start = kTop) : DLlistIter(l) {
    if (start != kTop) start == kFirst ? First() : Last();
  }
  using DLlistIter::Ascend, DLlistIter::Descend, DLlistIter::First, DLlistIter::Last, DLlistIter::List,
      DLlistIter::Next, DLlistIter::NextPureElt, DLlistIter::Prev, DLlistIter::PrevPureElt, DLlistIter::ThrowList,
      DLlistIter::TreeTop, DLlistIter::UseList;
  int v() const { return Current() != nullptr ? static_cast<Item*>(Current())->v : -1; }
  DLlistElt* at() const { return Current(); }
};

// "list:element" of an iterator: the tag of its list ("-" for none), then the
// value it stands on, or BOL or EOL.
std::string where(const Iter& it) {
  const std::string list = it.List() != nullptr ? std::to_string(static_cast<Branch*>(it.List())->tag) : "-";
  return list + ":" + (it.at() != nullptr ? std::to_string(it.v()) : it.EOL() ? "EOL" : "BOL");
}

// Values front to back, and checked against a walk back to front.
std::vector<int> values(const DLlist& l) {
  std::vector<int> forward, backward;
  Iter it(&l);
  while (it.Next() != nullptr) forward.push_back(it.v());
  it.Bottom();
  while (it.Prev() != nullptr) backward.insert(backward.begin(), it.v());
  EXPECT_EQ(forward, backward) << "prev links disagree with next links";
  return forward;
}

void fill(DLlist& l, std::initializer_list<int> vs) {
  for (int v : vs) l.InsertEnd(new Item(v));
}

// A long random run of list operations with several live iterators, checked
// after every step against a vector of ids and positions kept beside it.
TEST(DLlistModel, RandomOperationsMatchAReferenceModel) {
  std::mt19937 rng(20240611);
  auto pick = [&](int n) { return int(rng() % unsigned(n)); };
  const int before = g_live;
  {
    Branch l(0);
    std::vector<int> model;
    constexpr int kIters = 5, kBol = -1, kEol = -2;
    std::vector<std::unique_ptr<Iter>> its;
    std::vector<int> pos(kIters, kBol);  // the id an iterator stands on, or kBol, kEol
    for (int i = 0; i < kIters; ++i) its.push_back(std::make_unique<Iter>(&l));
    int nextId = 0;
    auto index = [&](int id) { return int(std::find(model.begin(), model.end(), id) - model.begin()); };
    auto idAt = [&](int i) { return i < 0 ? kBol : i >= int(model.size()) ? kEol : model[size_t(i)]; };
    auto removed = [&](int id) {  // iterators on it move to its successor
      const int i = index(id);
      for (int& p : pos) p = p == id ? idAt(i + 1) : p;
      model.erase(model.begin() + i);
    };

    for (int step = 0; step < 20000; ++step) {
      const int op = pick(15), k = pick(kIters), n = int(model.size());
      Iter& it = *its[size_t(k)];
      int& p = pos[size_t(k)];
      if (op == 0 || (op <= 4 && n == 0)) {  // insert at a random place, by each route there is
        const int at = pick(n + 1);
        DLlistElt* following = l.Get(at);
        DLlistElt* preceding = at > 0 ? l.Get(at - 1) : nullptr;
        auto* e = new Item(nextId);
        switch (n == 0 ? pick(3) : pick(6)) {
          case 0: l.InsertBefore(following, e); break;
          case 1: l.InsertAfter(preceding, e); break;
          case 2: it.InsertBefore(following, e); break;
          case 3: it.InsertAfter(preceding, e); break;
          case 4: following != nullptr ? following->InsertBefore(e) : l.InsertEnd(e); break;
          default: preceding != nullptr ? preceding->InsertAfter(e) : l.InsertBegin(e); break;
        }
        model.insert(model.begin() + at, nextId++);
      } else if (op <= 2) {  // through an iterator, which then stands on the new element
        const int at = p == kBol ? 0 : p == kEol ? n : index(p) + (op == 1 ? 1 : 0);
        op == 1 ? it.InsertAfter(new Item(nextId)) : it.InsertBefore(new Item(nextId));
        model.insert(model.begin() + at, nextId);
        p = nextId++;
      } else if (op == 3) {  // remove through an iterator
        if (p >= 0) removed(p);
        it.Remove(false);
      } else if (op == 4) {  // remove through the element, the list, or the destructor
        const int id = model[size_t(pick(n))];
        DLlistElt* e = l.Get(index(id));
        ASSERT_EQ(it.Index(e), index(id));
        removed(id);
        switch (pick(3)) {
          case 0: e->Remove(false); break;
          case 1: l.Remove(e, false); break;
          default: delete e; break;
        }
      } else if (op == 5) {  // extract, then put back at the front or destroy
        const int id = p;
        if (id >= 0) removed(id);
        DLlistElt* e = it.Extract();
        ASSERT_EQ(e != nullptr, id >= 0);
        if (e != nullptr && pick(2) == 0) {
          l.InsertBegin(e);
          model.insert(model.begin(), id);
        } else {
          delete e;
        }
      } else if (op == 6 && pick(40) == 0) {  // clear, rarely
        pick(2) == 0 ? l.Clear() : it.ClearList();
        model.clear();
        pos.assign(kIters, kBol);
      } else if (op == 7 && n > 0) {
        p = model[size_t(pick(n))];
        it.GoTo(l.Get(index(p)));
      } else if (op == 8) {  // iterator assignment
        const int target = pick(kIters);
        *its[size_t(target)] = it;
        pos[size_t(target)] = p;
      } else if (op == 9) {
        it.First();
        if (n > 0) p = model.front();
      } else if (op == 10) {
        it.Last();
        if (n > 0) p = model.back();
      } else if (op <= 12) {
        op == 11 ? void(it.Next()) : void(++it);
        p = p == kEol ? kEol : idAt(p == kBol ? 0 : index(p) + 1);
      } else {
        op == 13 ? void(it.Prev()) : void(--it);
        p = p == kBol ? kBol : idAt(p == kEol ? n - 1 : index(p) - 1);
      }

      ASSERT_EQ(values(l), model) << "step " << step;
      ASSERT_EQ(it.Count(), int(model.size()));
      std::vector<std::pair<int, int>> seen, expected;
      for (int j = 0; j < kIters; ++j) {
        const Iter& i = *its[size_t(j)];
        const int q = pos[size_t(j)];
        seen.emplace_back(int(i) != 0 ? i.v() : i.EOL() ? kEol : kBol, i.Index());
        expected.emplace_back(q, q >= 0 ? index(q) : -1);
        for (int other = 0; other < kIters; ++other) ASSERT_EQ(i == *its[size_t(other)], q == pos[size_t(other)]);
      }
      ASSERT_EQ(seen, expected) << "step " << step;
      ASSERT_EQ(g_live - before, int(model.size()));
    }
  }
  EXPECT_EQ(g_live, before);
}

// What the model run leaves out: elements in no list, removals through the
// wrong list, bounds, lists that do not own, iterators without a list.
TEST(DLlist, LooseElementsForeignListsBoundsAndIteratorsWithoutList) {
  const int before = g_live;
  Branch l(0), other(2, false);  // other does not own its elements
  fill(l, {1, 2, 3});
  auto* a = static_cast<Item*>(l.Get(0));
  Item loose(9), spare(8);
  loose.InsertBefore(&spare);  // in no list: nothing happens
  loose.InsertAfter(&spare);
  EXPECT_EQ(spare.Parent(), nullptr);
  EXPECT_EQ(spare.TreeTop(), nullptr);
  EXPECT_EQ(other.Index(a), -1);
  other.Remove(a, false);  // not its element
  l.Remove(nullptr, false);
  EXPECT_EQ(l.Get(-1), nullptr);
  l.Remove(a, true);  // kept
  EXPECT_EQ(a->Parent(), nullptr);
  other.InsertEnd(a);
  other.Remove(a, false);  // unlinked, left alive
  other.InsertEnd(a);
  other.Clear();
  EXPECT_EQ(a->Parent(), nullptr);
  l.InsertEnd(a);  // free again: may join another list
  EXPECT_EQ(values(l), (std::vector<int>{2, 3, 1}));
  EXPECT_EQ(g_live, before + 5);

  Iter it(&l, kLast), elsewhere(&other);
  EXPECT_FALSE(elsewhere == Iter(&l)) << "different lists";
  it.ThrowList();
  it.InsertAfter(&spare);
  it.InsertBefore(&spare);
  it.InsertAfter(nullptr, &spare);
  it.InsertBefore(nullptr, &spare);
  EXPECT_EQ(spare.Parent(), nullptr);
  EXPECT_EQ(where(it), "-:BOL");
  EXPECT_EQ(std::vector<int>({it.Index(), it.Index(a), it.Count()}), std::vector<int>({-1, -1, 0}));
  it.ClearList();
  it.Remove(false);
  EXPECT_EQ(values(l), (std::vector<int>{2, 3, 1}));
}

// root: [1, inner:[2, deep:[3, 4], 5], 6]
struct Tree {
  Branch root{0};
  Branch* inner = new Branch(10);
  Branch* deep = new Branch(20);
  Tree() {
    fill(root, {1});
    root.InsertEnd(inner);
    fill(root, {6});
    fill(*inner, {2});
    inner->InsertEnd(deep);
    fill(*inner, {5});
    fill(*deep, {3, 4});
  }
};

TEST(DLlistNesting, NavigationAscendDescendAndTreeTop) {
  Tree t;
  Iter it(&t.root);
  EXPECT_EQ(it.NextPureElt(), t.root.Get(0));
  EXPECT_EQ(it.NextPureElt(), t.root.Get(2)) << "skips the nested list";
  EXPECT_EQ(it.PrevPureElt(), t.root.Get(0));
  it.Next();
  EXPECT_EQ(it.Descend(), t.inner);
  EXPECT_TRUE(it.BOL());
  EXPECT_EQ(it.Descend(), nullptr) << "not standing on a list";
  it.Next();
  it.Next();
  EXPECT_EQ(it.Descend(), t.deep);
  it.Next();
  EXPECT_EQ(t.deep->Get(0)->TreeTop(), &t.root);
  EXPECT_EQ(t.inner->TreeTop(), &t.root);
  EXPECT_EQ(it.TreeTop(), &t.root);
  EXPECT_EQ(it.at(), t.inner) << "stands on the list it came from";
  EXPECT_EQ(it.Ascend(), nullptr);
  it.Next();
  t.root.Remove(it.at(), false);
  EXPECT_EQ(where(it), "0:EOL") << "the iterator is registered with the root again";
}

TEST(DLlistNesting, DestroyingOrRemovingNestedListsMovesIteratorsUp) {
  const int before = g_live;
  {
    Tree t;
    Iter in3(t.deep, kLast), in2(t.inner, kFirst), in2b(t.inner);
    delete t.deep;  // middle of inner: iterators move onto its successor
    in2b.Last();
    EXPECT_EQ(where(in3) + " " + where(in2), "10:5 10:2");
    delete t.inner;  // three levels collapse: to the root's element 6
    EXPECT_EQ(where(in3) + " " + where(in2) + " " + where(in2b), "0:6 0:6 0:6");
    EXPECT_EQ(values(t.root), (std::vector<int>{1, 6}));
  }
  {
    Tree t;
    Iter in3(t.deep, kFirst);
    t.inner->Remove(t.inner->Get(2), false);  // deep is now the last of inner
    delete t.deep;
    EXPECT_EQ(where(in3), "10:EOL") << "a nested list that was last: EOL of the parent";
  }
  {
    Tree t;
    Iter in3(t.deep, kFirst);
    t.deep->Remove(true);  // kept: detached, and its iterators moved up past it
    EXPECT_EQ(where(in3), "10:5");
    EXPECT_EQ(t.deep->TreeTop(), t.deep);
    {
      Iter top(t.deep, kFirst);
      t.deep->Remove(true);  // an outermost list: the iterator forgets it
      EXPECT_EQ(where(top), "-:3");
    }
    t.deep->Remove(t.deep->Get(0), false);  // must not reach the iterator that is gone
    EXPECT_EQ(values(*t.deep), (std::vector<int>{4}));
    delete t.deep;
  }
  {
    Tree t;
    Iter inDeep(t.deep, kFirst), inRoot(&t.root, kLast);
    t.root.Clear();
    EXPECT_EQ(where(inRoot) + " " + where(inDeep), "0:BOL -:BOL") << "cleared with its parent: the list is lost";
    auto* top = new Branch(5);
    fill(*top, {1});
    Iter onTop(top, kFirst);
    delete top;
    EXPECT_EQ(where(onTop), "-:BOL");
  }
  EXPECT_EQ(g_live, before);
}

// Nested shape as text, e.g. "0[1 10[2 20[3 4] 5] 6]"; given a heap, "!"
// marks each element that lies outside it.
std::string shape(const DLlistElt* e, heap* h = nullptr) {
  const bool list = e->IsList() != 0;
  std::string s = std::to_string(list ? static_cast<const Branch*>(e)->tag : static_cast<const Item*>(e)->v);
  if (h != nullptr && heapman_mgr::find(e) != h) s += "!";
  if (!list) return s;
  s += "[";
  Iter it(static_cast<const DLlist*>(e));
  while (DLlistElt* c = it.Next()) s += (s.back() == '[' ? "" : " ") + shape(c, h);
  return s + "]";
}

TEST(DLlistCopies, DupTreeCopyAndInsertEndPlaceCopiesInTheDestinationHeap) {
  heapman_mgr::initialize();
  heap named("listcopies");
  const int before = g_live;
  {
    Tree t;
    DLlistElt* dup = t.root.DupTree(&named);
    EXPECT_EQ(shape(dup, &named), "0[1 10[2 20[3 4] 5] 6]") << "every copy in the named heap";
    EXPECT_EQ(dup->TreeTop(), dup);
    delete dup;

    auto* placed = new (&named, "tests/list", __LINE__) Branch(7);
    placed->Copy(t.root);
    placed->Copy(t.root);  // a second Copy replaces the first
    EXPECT_EQ(shape(placed, &named), "7[1 10[2 20[3 4] 5] 6]");
    delete placed;

    Branch onStack(8);
    onStack.InsertEnd(t.root);
    onStack.InsertEnd(onStack);  // appending itself copies each element once
    EXPECT_EQ(shape(&onStack, mainheap), "8![1 10[2 20[3 4] 5] 6 1 10[2 20[3 4] 5] 6]") << "copies in mainheap";

    DLlist deep(t.root);  // the copy constructor copies deeply
    EXPECT_EQ(deep.Count(), 3);
    EXPECT_NE(Iter(&deep, kFirst).at(), t.root.First());
  }
  EXPECT_EQ(g_live, before);
}

TEST(DLlistCopies, UncopyableElementsAbortTheCopy) {
  DLlist l;
  fill(l, {1, 2});
  l.InsertEnd(new Plain);
  const int before = g_live;
  DLlist target;
  EXPECT_EQ(abort_text([&] { target.Copy(l); }), "DLlistElt::DupElt() this must be overwritten");
  EXPECT_EQ(target.Count(), 2) << "copies made before the abort stay in the list";
  Branch holder(1);
  holder.InsertEnd(new Plain);
  EXPECT_EQ(abort_text([&] { delete holder.DupTree(nullptr); }), "DLlistElt::DupElt() this must be overwritten");
  target.Clear();
  EXPECT_EQ(g_live, before);
}

#ifndef NDEBUG
TEST(DLlistChecks, BrokenPreconditionsStopInDebugBuilds) {
  Branch l(0);
  DLlist other;
  fill(l, {1, 2});
  auto* a = static_cast<Item*>(l.Get(0));
  EXPECT_EQ(abort_text([&] { l.InsertEnd(nullptr); }), "DLlist::InsertBetween() null element");
  EXPECT_EQ(abort_text([&] { other.InsertEnd(a); }), "DLlist::InsertBetween() element is still in a list");
  EXPECT_EQ(abort_text([&] { l.InsertEnd(a->Next()); }), "DLlist::InsertBetween() element is still in a list");
  EXPECT_EQ(abort_text([&] { l.InsertEnd(&l); }), "DLlist::InsertBetween() a list cannot hold itself");
  Iter it(&l);
  EXPECT_EQ(abort_text([&] { it.GoTo(nullptr); }), "DLlistIter::GoTo() null element");
  other.InsertEnd(new Item(*a));  // a member-wise copy is in no chain: accepted
  EXPECT_EQ(values(l), (std::vector<int>{1, 2}));
  EXPECT_EQ(values(other), (std::vector<int>{1}));
}
#endif

}  // namespace
