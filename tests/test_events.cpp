// The eye event registry: who hears what, in which order, under which lock.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "EyeEvent.h"
#include "EyeEventListener.h"

namespace {

using Log = std::vector<std::string>;
Log heard;

// Notes a notification, and whether the registry was locked at the time.
void note(const std::string& what, unsigned short id) {
  const bool locked = !EyeEvent::mtx.try_lock();
  if (!locked) EyeEvent::mtx.unlock();
  heard.push_back(what + " " + std::to_string(id) + (locked ? " locked" : ""));
}

class Recorder : public EyeEventListener {
 public:
  explicit Recorder(std::string name) : name_(std::move(name)) {}
  void onEyeStart(unsigned short id) override { note(name_ + " start", id); }
  void onEyeComplete(unsigned short id) override { note(name_ + " complete", id); }
  void onEyeAbort(unsigned short id) override { note(name_ + " abort", id); }

 private:
  std::string name_;
};

class CompleteOnly : public EyeEventListener {
 public:
  void onEyeComplete(unsigned short id) override { note("only", id); }
};

template <int N>
void f(unsigned short id) {
  note("f" + std::to_string(N), id);
}
void selfRemoving(unsigned short id) {
  note("self", id);
  EyeEvent::RemoveListenerOnComplete(selfRemoving);
}
void adding(unsigned short id) {
  note("adding", id);
  EyeEvent::AddListenerOnStart(f<3>);
}

class EventsTest : public ::testing::Test {
 protected:
  void SetUp() override { clear(); }
  void TearDown() override { clear(); }
  static void clear() {
    EyeEvent::observers.clear();
    EyeEvent::start_event_listeners.clear();
    EyeEvent::complete_event_listeners.clear();
    EyeEvent::abort_event_listeners.clear();
    heard.clear();
  }
};

TEST_F(EventsTest, ObjectsInPriorityOrderUnderTheLockThenFunctionsUnlocked) {
  EyeEvent::EyeStart(1);
  EyeEvent::EyeComplete(1);
  EyeEvent::EyeAbort(1);
  EXPECT_TRUE(heard.empty());

  Recorder a("a"), b("b"), c("c");
  CompleteOnly only;
  EyeEvent::AddListenerOnStart(f<1>);  // registered first, still called after the objects
  EyeEvent::AddListener(&a, false);
  EyeEvent::AddListener(&b, true);
  EyeEvent::AddListener(&c, true);
  EyeEvent::AddListener(&only, false);
  EyeEvent::AddListenerOnStart(f<2>);
  EyeEvent::AddListenerOnComplete(f<3>);
  EyeEvent::EyeStart(7);
  EXPECT_EQ(heard,
            (Log{"c start 7 locked", "b start 7 locked", "a start 7 locked", "f1 7", "f2 7"}));

  heard.clear();
  EyeEvent::EyeComplete(65535);
  EyeEvent::EyeAbort(3);
  EXPECT_EQ(heard, (Log{"c complete 65535 locked", "b complete 65535 locked",
                        "a complete 65535 locked", "only 65535 locked", "f3 65535",
                        "c abort 3 locked", "b abort 3 locked", "a abort 3 locked"}));
}

TEST_F(EventsTest, DuplicatesStayUntilRemovedOnceEachAndNullsAreDroppedOrSkipped) {
  Recorder a("a"), b("b");
  EyeEvent::AddListener(nullptr, true);
  EyeEvent::AddListener(&a, false);
  EyeEvent::AddListener(&b, false);
  EyeEvent::AddListener(&a, false);
  EyeEvent::AddListener(nullptr, false);
  EXPECT_EQ(EyeEvent::observers.size(), 5u);
  EyeEvent::RemoveListener(&a);  // the first registration goes
  EyeEvent::RemoveListener(nullptr);
  EyeEvent::AddListenerOnAbort(nullptr);
  EyeEvent::AddListenerOnAbort(f<1>);
  EyeEvent::AddListenerOnAbort(f<1>);
  EyeEvent::RemoveListenerOnAbort(f<1>);
  EyeEvent::RemoveListenerOnAbort(f<2>);  // not there
  EyeEvent::RemoveListenerOnStart(f<1>);  // wrong list
  EyeEvent::EyeAbort(2);
  EXPECT_EQ(heard, (Log{"b abort 2 locked", "a abort 2 locked", "f1 2"}));
  // Delivery dropped the null objects; the null function stays, skipped.
  EXPECT_EQ(EyeEvent::observers, (std::vector<EyeEventListener*>{&b, &a}));
  EXPECT_EQ(EyeEvent::abort_event_listeners.size(), 2u);

  heard.clear();
  EyeEvent::RemoveListener(&a);
  EyeEvent::RemoveListenerOnAbort(f<1>);
  EyeEvent::EyeAbort(2);
  EXPECT_EQ(heard, (Log{"b abort 2 locked"}));
}

TEST_F(EventsTest, FunctionsMayChangeTheirListDuringDelivery) {
  // Removing itself shifts the next function onto the index just walked: that one
  // is passed over this time and heard next time.
  EyeEvent::AddListenerOnComplete(selfRemoving);
  EyeEvent::AddListenerOnComplete(f<1>);
  EyeEvent::AddListenerOnComplete(f<2>);
  EyeEvent::EyeComplete(4);
  EXPECT_EQ(heard, (Log{"self 4", "f2 4"}));
  heard.clear();
  EyeEvent::EyeComplete(5);
  EXPECT_EQ(heard, (Log{"f1 5", "f2 5"}));

  // A function added during the walk is reached in the same delivery.
  heard.clear();
  EyeEvent::AddListenerOnStart(f<1>);
  EyeEvent::AddListenerOnStart(adding);
  EyeEvent::EyeStart(6);
  EXPECT_EQ(heard, (Log{"f1 6", "adding 6", "f3 6"}));
}

}  // namespace
