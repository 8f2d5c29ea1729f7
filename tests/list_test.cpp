// The intrusive list: linking, iterator repair by every route, nesting, deep
// copies into tracked heaps, and a long random run against a reference model.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <list>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "LIST.h"
#include "sysman.h"
#include "test_support.h"

namespace {

int g_live = 0;  // Items alive

struct Item : DLlistElt {
  int v;
  explicit Item(int value) : v(value) { ++g_live; }
  Item(const Item& other) : DLlistElt(other), v(other.v) { ++g_live; }
  ~Item() override { --g_live; }
  DLlistElt* DupElt(heap* h) const override { return new (h, "tests/list", __LINE__) Item(*this); }
  using DLlistElt::Next;
  using DLlistElt::Parent;
  using DLlistElt::Prev;
};

struct Plain : DLlistElt {};  // cannot be copied

struct Branch : DLlist {
  int tag;
  explicit Branch(int t, bool owns = true) : DLlist(owns), tag(t) {}
  DLlistElt* DupElt(heap* h) const override { return new (h, "tests/list", __LINE__) Branch(tag); }
  using DLlist::First;
  using DLlist::Get;
};

struct Iter : DLlistIter {
  explicit Iter(const DLlist* l) : DLlistIter(l) {}
  using DLlistIter::Ascend;
  using DLlistIter::Descend;
  using DLlistIter::DropList;
  using DLlistIter::First;
  using DLlistIter::Last;
  using DLlistIter::List;
  using DLlistIter::Next;
  using DLlistIter::NextPureElt;
  using DLlistIter::Prev;
  using DLlistIter::PrevPureElt;
  using DLlistIter::ThrowList;
  using DLlistIter::TreeTop;
  using DLlistIter::UseList;
  int v() const { return Current() != nullptr ? static_cast<Item*>(Current())->v : -1; }
  DLlistElt* at() const { return Current(); }
};

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

Item* fill(DLlist& l, std::initializer_list<int> vs) {
  Item* firstItem = nullptr;
  for (int v : vs) {
    auto* e = new Item(v);
    if (firstItem == nullptr) firstItem = e;
    l.InsertEnd(e);
  }
  return firstItem;
}

using kvtest::abort_text;

// Inserting at the list's ends and through elements; removal by each route
// and the list's ownership of what it holds.
TEST(DLlist, InsertPositionsRemovalAndOwnership) {
  const int before = g_live;
  Branch l(0);
  auto* b = new Item(2);
  l.InsertEnd(b);
  l.InsertBegin(new Item(0));
  l.InsertAfter(l.Get(0), new Item(1));
  l.InsertBefore(nullptr, new Item(4));
  b->InsertAfter(new Item(3));
  l.InsertBefore(l.Get(0), new Item(-1));
  EXPECT_EQ(values(l), (std::vector<int>{-1, 0, 1, 2, 3, 4}));
  EXPECT_EQ(l.Index(b), 3);
  EXPECT_EQ(l.Get(-1), nullptr);
  EXPECT_EQ(l.Get(l.Count()), nullptr);
  Item loose(9), spare(8);
  loose.InsertBefore(&spare);  // in no list: nothing happens
  loose.InsertAfter(&spare);
  EXPECT_EQ(spare.Parent(), nullptr);
  EXPECT_EQ(spare.TreeTop(), nullptr);
  Branch other(2, false);
  EXPECT_EQ(other.Index(b), -1);
  other.Remove(b, false);  // not its element
  l.Remove(nullptr, false);
  EXPECT_EQ(l.Count(), 6);

  l.Remove(b, true);  // kept
  EXPECT_EQ(b->Parent(), nullptr);
  other.InsertEnd(b);
  other.Remove(b, false);  // a list that does not own: unlinks, leaves alive
  other.InsertEnd(b);
  other.Clear();
  EXPECT_EQ(b->Parent(), nullptr);
  static_cast<Item*>(l.Get(0))->Remove(false);  // an owning list: destroyed
  EXPECT_EQ(g_live, before + 7) << "five in or beside the list, two on the stack";
  l.InsertEnd(b);  // free again: may join another list
  EXPECT_EQ(values(l), (std::vector<int>{0, 1, 3, 4, 2}));
}

// Stepping and iterator inserts are covered by the model run at the end; these
// are the operations it does not make.
TEST(DLlistIter, EndsComparisonsAndIteratorsWithoutList) {
  Branch l(0);
  Iter it(&l);
  it.Bottom();
  it.First();
  EXPECT_TRUE(it.EOL()) << "First() on an empty list keeps the end";
  fill(l, {1, 2, 3});
  --it;
  Iter copy(it);
  EXPECT_TRUE(copy == it);
  --copy;
  EXPECT_FALSE(copy == it);
  EXPECT_TRUE(!!it && int(it) == 1);
  it.Top();
  copy.Bottom();
  EXPECT_FALSE(copy == it) << "BOL and EOL differ";
  EXPECT_TRUE(!it && int(it) == 0);
  DLlist other;
  Iter elsewhere(&other);
  EXPECT_FALSE(elsewhere == it) << "different lists";
  elsewhere = it;
  EXPECT_TRUE(elsewhere == it);
  EXPECT_EQ(it.Count(), 3);
  EXPECT_EQ(it.Index(l.Get(2)), 2);

  it.ThrowList();
  Item stray(7);
  it.InsertAfter(&stray);
  it.InsertBefore(&stray);
  EXPECT_EQ(stray.Parent(), nullptr);
  EXPECT_EQ(it.Index(), -1);
  EXPECT_EQ(it.Count(), 0);
  it.ClearList();
  it.UseList(&l);
  it.GoTo(l.Get(1));
  elsewhere.Last();
  it.ClearList();
  EXPECT_TRUE(it.BOL() && elsewhere.BOL()) << "Clear sends every iterator to BOL";
  EXPECT_EQ(l.Count(), 0);
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
  EXPECT_EQ(it.List(), &t.root);
  it.Next();
  t.root.Remove(it.at(), false);
  EXPECT_TRUE(it.EOL()) << "the iterator is registered with the root again";
}

TEST(DLlistNesting, DestroyingOrRemovingNestedListsMovesIteratorsUp) {
  {
    Tree t;
    Iter in3(t.deep), in2(t.inner);
    in3.Last();
    in2.First();
    delete t.deep;  // middle of inner: iterators move onto its successor
    EXPECT_EQ(in3.List(), t.inner);
    EXPECT_EQ(in3.v(), 5);
    EXPECT_EQ(in2.v(), 2);
    Iter in2b(t.inner);
    in2b.Last();
    delete t.inner;  // three levels collapse: to the root's element 6
    EXPECT_EQ(in3.List(), &t.root);
    EXPECT_EQ(in3.v(), 6);
    EXPECT_EQ(in2.v(), 6);
    EXPECT_EQ(in2b.v(), 6);
    EXPECT_EQ(values(t.root), (std::vector<int>{1, 6}));
  }
  {
    Tree t;
    Iter deepIt(t.deep);
    deepIt.First();
    t.inner->Remove(t.inner->Get(2), false);  // deep is now the last of inner
    delete t.deep;
    EXPECT_TRUE(deepIt.EOL()) << "a nested list that was last: EOL of the parent";
    EXPECT_EQ(deepIt.List(), t.inner);
  }
  {
    Tree t;
    Iter a(t.deep);
    a.First();
    t.deep->Remove(true);  // kept: detached, and its iterators moved up past it
    EXPECT_EQ(a.List(), t.inner);
    EXPECT_EQ(a.v(), 5);
    EXPECT_EQ(t.deep->TreeTop(), t.deep);
    {
      Iter top(t.deep);
      top.First();
      t.deep->Remove(true);  // an outermost list: the iterator forgets it
      EXPECT_EQ(top.List(), nullptr);
      EXPECT_EQ(top.v(), 3);
    }
    t.deep->Remove(t.deep->Get(0), false);  // must not reach the iterator that is gone
    EXPECT_EQ(values(*t.deep), (std::vector<int>{4}));
    delete t.deep;
  }
  const int before = g_live;
  {
    Tree t;
    Iter inDeep(t.deep), inRoot(&t.root);
    inDeep.First();
    inRoot.Last();
    t.root.Clear();
    EXPECT_TRUE(inRoot.BOL());
    EXPECT_EQ(inDeep.List(), nullptr) << "cleared with its parent: the iterator loses the list";
    auto* top = new Branch(5);
    fill(*top, {1});
    Iter onTop(top);
    onTop.First();
    delete top;
    EXPECT_EQ(onTop.List(), nullptr);
    EXPECT_TRUE(!onTop);
  }
  EXPECT_EQ(g_live, before);
}

bool all_in(const DLlistElt* e, heap* h) {
  if (heapman_mgr::find(e) != h) return false;
  if (e->IsList() == 0) return true;
  Iter it(static_cast<const DLlist*>(e));
  while (DLlistElt* c = it.Next())
    if (!all_in(c, h)) return false;
  return true;
}

// Nested shape as text, e.g. "0[1 10[2 20[3 4] 5] 6]".
std::string shape(const DLlistElt* e) {
  if (e->IsList() == 0) return std::to_string(static_cast<const Item*>(e)->v);
  std::string s = std::to_string(static_cast<const Branch*>(e)->tag) + "[";
  Iter it(static_cast<const DLlist*>(e));
  while (DLlistElt* c = it.Next()) s += (s.back() == '[' ? "" : " ") + shape(c);
  return s + "]";
}

TEST(DLlistCopies, DupTreeCopyAndInsertEndPlaceCopiesInTheDestinationHeap) {
  heapman_mgr::initialize();
  heap named("listcopies");
  const int before = g_live;
  {
    Tree t;
    DLlistElt* dup = t.root.DupTree(&named);
    EXPECT_EQ(shape(dup), "0[1 10[2 20[3 4] 5] 6]");
    EXPECT_EQ(shape(&t.root), shape(dup));
    EXPECT_TRUE(all_in(dup, &named)) << "every copy in the named heap";
    EXPECT_EQ(dup->TreeTop(), dup);
    delete dup;

    auto* placed = new (&named, "tests/list", __LINE__) Branch(7);
    placed->Copy(t.root);
    placed->Copy(t.root);  // a second Copy replaces the first
    EXPECT_EQ(shape(placed), "7[1 10[2 20[3 4] 5] 6]");
    EXPECT_TRUE(all_in(placed, &named));
    delete placed;

    Branch onStack(8);
    onStack.InsertEnd(t.root);
    onStack.InsertEnd(onStack);  // appending itself copies each element once
    EXPECT_EQ(shape(&onStack), "8[1 10[2 20[3 4] 5] 6 1 10[2 20[3 4] 5] 6]");
    for (int i = 0; i < onStack.Count(); ++i) EXPECT_EQ(heapman_mgr::find(onStack.Get(i)), mainheap);

    DLlist deep(t.root);  // the copy constructor copies deeply
    Iter d(&deep);
    EXPECT_EQ(deep.Count(), 3);
    EXPECT_NE(d.First(), t.root.First());
    DLlist shallow;
    shallow = t.root;  // assignment shares the chain
    Iter s(&shallow);
    EXPECT_EQ(s.First(), t.root.First());
    s.ThrowList();
    shallow = DLlist();
  }
  EXPECT_EQ(g_live, before);
}

TEST(DLlistCopies, ShallowElementCopyAndUncopyableElements) {
  DLlist l;
  Item* a = fill(l, {1, 2});
  Item twin(*static_cast<Item*>(a->Next()));
  EXPECT_EQ(twin.Parent(), &l) << "the member-wise copy claims the source's links";
  EXPECT_EQ(twin.Prev(), a);
  EXPECT_EQ(l.Count(), 2);
  static_cast<DLlistElt&>(twin) = DLlistElt();  // or its destructor would unlink the source

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
  DLlist l, other;
  Item* a = fill(l, {1, 2});
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

// A long random run of list operations with several live iterators, checked
// after every step against std::list and positions kept beside it.
TEST(DLlistModel, RandomOperationsMatchAReferenceModel) {
  struct Pos {
    int id = -1;  // element stood on, -1 for none
    bool atEnd = false;
  };
  std::mt19937 rng(20240611);
  auto pick = [&](int n) { return int(rng() % unsigned(n)); };
  const int before = g_live;
  {
    Branch l(0);
    std::list<int> model;
    constexpr int kIters = 5;
    std::vector<std::unique_ptr<Iter>> its;
    std::vector<Pos> pos(kIters);
    for (int i = 0; i < kIters; ++i) its.push_back(std::make_unique<Iter>(&l));
    int nextId = 0;

    auto find = [&](int id) { return std::find(model.begin(), model.end(), id); };
    auto element = [&](int id) { return l.Get(int(std::distance(model.begin(), find(id)))); };
    auto removed = [&](int id) {  // model repair, before the id leaves the model
      auto at = find(id);
      auto following = std::next(at);
      for (Pos& p : pos)
        if (p.id == id) p = following == model.end() ? Pos{-1, true} : Pos{*following, p.atEnd};
      model.erase(at);
    };
    auto randomId = [&] { return *std::next(model.begin(), pick(int(model.size()))); };

    for (int step = 0; step < 20000; ++step) {
      const int op = pick(15);
      const int k = pick(kIters);
      Iter& it = *its[k];
      Pos& p = pos[k];
      const bool empty = model.empty();
      if (op == 0 || (op <= 4 && empty)) {  // insert at a random position through the list
        const int at = pick(int(model.size()) + 1);
        auto* e = new Item(nextId);
        if (at == int(model.size()))
          l.InsertBefore(nullptr, e);
        else
          l.InsertBefore(l.Get(at), e);
        model.insert(std::next(model.begin(), at), nextId++);
      } else if (op == 1 || op == 2) {  // insert through an iterator
        auto* e = new Item(nextId);
        auto where = p.id >= 0 ? find(p.id) : model.end();
        if (op == 1) {
          it.InsertAfter(e);
          if (p.id < 0) where = p.atEnd ? model.end() : model.begin();
          else ++where;
        } else {
          it.InsertBefore(e);
          if (p.id < 0) where = p.atEnd ? model.end() : model.begin();
        }
        model.insert(where, nextId);
        p.id = nextId++;
      } else if (op == 3) {  // remove through an iterator
        if (p.id >= 0) removed(p.id);
        it.Remove(false);
      } else if (op == 4) {  // remove through the element, the list, or the destructor
        const int id = randomId();
        DLlistElt* e = element(id);
        removed(id);
        switch (pick(3)) {
          case 0: e->Remove(false); break;
          case 1: l.Remove(e, false); break;
          default: delete e; break;
        }
      } else if (op == 5) {  // extract, then put back at the front or destroy
        const int id = p.id;
        if (id >= 0) removed(id);
        DLlistElt* e = it.Extract();
        ASSERT_EQ(e != nullptr, id >= 0);
        if (e != nullptr && pick(2) == 0) {
          l.InsertBegin(e);
          model.push_front(id);
        } else {
          delete e;
        }
      } else if (op == 6 && pick(40) == 0) {  // clear, rarely
        l.Clear();
        model.clear();
        for (Pos& q : pos) q = Pos{};
      } else if (op == 7 && !empty) {
        const int id = randomId();
        it.GoTo(element(id));
        p = Pos{id, false};
      } else if (op == 8) {  // iterator assignment
        const int target = pick(kIters);
        *its[target] = it;
        pos[target] = p;
      } else if (op == 9) {
        it.First();
        if (!empty) p.id = model.front();
        else p.id = -1;
      } else if (op == 10) {
        it.Last();
        p.id = empty ? -1 : model.back();
      } else if (op <= 12) {  // next
        it.Next();
        if (p.id < 0 && !p.atEnd) p.id = empty ? -1 : model.front();
        else if (p.id >= 0) p.id = std::next(find(p.id)) == model.end() ? -1 : *std::next(find(p.id));
        if (p.id < 0) p.atEnd = true;
      } else {  // prev
        it.Prev();
        if (p.id < 0 && p.atEnd) p.id = empty ? -1 : model.back();
        else if (p.id >= 0) p.id = find(p.id) == model.begin() ? -1 : *std::prev(find(p.id));
        if (p.id < 0) p.atEnd = false;
      }

      ASSERT_EQ(values(l), std::vector<int>(model.begin(), model.end())) << "step " << step;
      ASSERT_EQ(l.Count(), int(model.size()));
      for (int j = 0; j < kIters; ++j) {
        ASSERT_EQ(its[j]->v(), pos[j].id) << "iterator " << j << " at step " << step;
        if (pos[j].id < 0) ASSERT_EQ(its[j]->EOL(), pos[j].atEnd) << "iterator " << j << " at step " << step;
        else ASSERT_EQ(its[j]->Index(), int(std::distance(model.begin(), find(pos[j].id))));
      }
      ASSERT_EQ(g_live - before, int(model.size()));
    }
  }
  EXPECT_EQ(g_live, before);
}

}  // namespace
