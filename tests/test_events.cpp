// The eye event registry: who hears what, in which order, under which lock.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "EyeEvent.h"
#include "EyeEventListener.h"

namespace {

std::vector<std::string> heard;

// Records every notification, and whether the registry was locked at the time.
class Recorder : public EyeEventListener {
 public:
  explicit Recorder(std::string name) : name_(std::move(name)) {}
  void onEyeStart(unsigned short id) override { note("start", id); }
  void onEyeComplete(unsigned short id) override { note("complete", id); }
  void onEyeAbort(unsigned short id) override { note("abort", id); }

 private:
  void note(const char* what, unsigned short id) {
    const bool locked = !EyeEvent::mtx.try_lock();
    if (!locked) EyeEvent::mtx.unlock();
    heard.push_back(name_ + " " + what + " " + std::to_string(id) + (locked ? " locked" : ""));
  }
  std::string name_;
};

class CompleteOnly : public EyeEventListener {
 public:
  void onEyeComplete(unsigned short id) override { heard.push_back("only " + std::to_string(id)); }
};

void noteFunction(const char* name, unsigned short id) {
  const bool locked = !EyeEvent::mtx.try_lock();
  if (!locked) EyeEvent::mtx.unlock();
  heard.push_back(std::string(name) + " " + std::to_string(id) + (locked ? " locked" : ""));
}
void f1(unsigned short id) {
  noteFunction("f1", id);
}
void f2(unsigned short id) {
  noteFunction("f2", id);
}
void f3(unsigned short id) {
  noteFunction("f3", id);
}
void selfRemoving(unsigned short id) {
  noteFunction("self", id);
  EyeEvent::RemoveListenerOnComplete(selfRemoving);
}
void adding(unsigned short id) {
  noteFunction("adding", id);
  EyeEvent::AddListenerOnStart(f3);
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
  using Log = std::vector<std::string>;
};

TEST_F(EventsTest, ObjectsInPriorityOrderUnderTheLockThenFunctionsUnlocked) {
  EyeEvent::EyeStart(1);
  EyeEvent::EyeComplete(1);
  EyeEvent::EyeAbort(1);
  EXPECT_TRUE(heard.empty());

  Recorder a("a"), b("b"), c("c");
  EyeEvent::AddListenerOnStart(f1);  // registered first, still called after the objects
  EyeEvent::AddListener(&a, false);
  EyeEvent::AddListener(&b, true);
  EyeEvent::AddListener(&c, true);
  EyeEvent::AddListenerOnStart(f2);
  EyeEvent::AddListenerOnComplete(f3);
  EyeEvent::EyeStart(7);
  EXPECT_EQ(heard,
            (Log{"c start 7 locked", "b start 7 locked", "a start 7 locked", "f1 7", "f2 7"}));

  heard.clear();
  EyeEvent::EyeComplete(65535);
  EyeEvent::EyeAbort(3);
  EXPECT_EQ(heard,
            (Log{"c complete 65535 locked", "b complete 65535 locked", "a complete 65535 locked",
                 "f3 65535", "c abort 3 locked", "b abort 3 locked", "a abort 3 locked"}));
}

TEST_F(EventsTest, DuplicatesStayUntilRemovedOnceEach) {
  Recorder a("a"), b("b");
  EyeEvent::AddListener(&a, false);
  EyeEvent::AddListener(&b, false);
  EyeEvent::AddListener(&a, false);
  EyeEvent::RemoveListener(&a);  // the first registration goes
  EyeEvent::RemoveListener(nullptr);
  EyeEvent::AddListenerOnAbort(f1);
  EyeEvent::AddListenerOnAbort(f1);
  EyeEvent::RemoveListenerOnAbort(f1);
  EyeEvent::RemoveListenerOnAbort(f2);  // not there
  EyeEvent::RemoveListenerOnStart(f1);  // wrong list
  EyeEvent::EyeAbort(2);
  EXPECT_EQ(heard, (Log{"b abort 2 locked", "a abort 2 locked", "f1 2"}));

  heard.clear();
  EyeEvent::RemoveListener(&a);
  EyeEvent::RemoveListenerOnAbort(f1);
  EyeEvent::EyeAbort(2);
  EXPECT_EQ(heard, (Log{"b abort 2 locked"}));
}

TEST_F(EventsTest, NullEntriesAreDroppedOrSkipped) {
  Recorder a("a");
  EyeEvent::AddListener(nullptr, true);
  EyeEvent::AddListener(&a, false);
  EyeEvent::AddListener(nullptr, false);
  EyeEvent::AddListenerOnAbort(nullptr);
  EyeEvent::AddListenerOnAbort(f1);
  EXPECT_EQ(EyeEvent::observers.size(), 3u);
  EyeEvent::EyeAbort(9);
  EyeEvent::EyeAbort(10);
  EXPECT_EQ(heard, (Log{"a abort 9 locked", "f1 9", "a abort 10 locked", "f1 10"}));
  EXPECT_EQ(EyeEvent::observers, std::vector<EyeEventListener*>{&a});
  EXPECT_EQ(EyeEvent::abort_event_listeners.size(), 2u);  // the null function stays
}

TEST_F(EventsTest, FunctionsMayChangeTheirListDuringDelivery) {
  // Removing itself shifts the next function onto the index just walked: that one
  // is passed over this time and heard next time.
  EyeEvent::AddListenerOnComplete(selfRemoving);
  EyeEvent::AddListenerOnComplete(f1);
  EyeEvent::AddListenerOnComplete(f2);
  EyeEvent::EyeComplete(4);
  EXPECT_EQ(heard, (Log{"self 4", "f2 4"}));
  heard.clear();
  EyeEvent::EyeComplete(5);
  EXPECT_EQ(heard, (Log{"f1 5", "f2 5"}));

  // A function added during the walk is reached in the same delivery.
  heard.clear();
  EyeEvent::AddListenerOnStart(f1);
  EyeEvent::AddListenerOnStart(adding);
  EyeEvent::EyeStart(6);
  EXPECT_EQ(heard, (Log{"f1 6", "adding 6", "f3 6"}));
}

TEST_F(EventsTest, ListenerOverridingOnlyCompleteHearsOnlyCompletion) {
  CompleteOnly only;
  EyeEvent::AddListener(&only, false);
  EyeEvent::EyeStart(1);
  EyeEvent::EyeAbort(2);
  EyeEvent::EyeComplete(3);
  EXPECT_EQ(heard, (Log{"only 3"}));
  EyeEvent::RemoveListener(&only);
}

}  // namespace
