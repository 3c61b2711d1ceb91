#include "PlayGate.h"

#include <atomic>

namespace {

std::atomic<PlayGate::Player*> attached{nullptr};

// Never destroyed: detached workers may still compose while the process exits.
std::shared_mutex& images() {
  static auto* m = new std::shared_mutex;
  return *m;
}

}  // namespace

void PlayGate::attach(Player* player) {
  attached = player;
}

void PlayGate::detach(Player* player) {
  attached.compare_exchange_strong(player, nullptr);
}

void PlayGate::applicationActivity() {
  if (Player* player = attached.load()) player->applicationActivity();
}

void PlayGate::blockStarts(const BlockEye& block) {
  Player* player = attached.load();
  if (player != nullptr && !player->ownsBlock(block)) player->applicationActivity();
}

PlayGate::Reading::Reading() : lock_(images()) {}

PlayGate::Change::Change() : lock_(images()) {}
