// The one seam between what changes what the eyes show and what composes their frames.
//
// Two jobs. Every command tells the gate before it changes the eyes, so another player
// on the eyes (idle motion registers as one) can step aside; the facade never knows who
// listens. And the gate keeps compositions away from images while they change: a
// composition holds a Reading for as long as it reads pixels, anything that swaps,
// repaints or re-points images holds a Change, which waits for the compositions in
// progress and holds off new ones until it ends. Frames of the two eyes still overlap
// freely; a Change is meant to be short, so images are decoded before taking it.
#pragma once

#include <mutex>
#include <shared_mutex>

class BlockEye;

class PlayGate {
 public:
  // Someone besides the application that plays on the eyes.
  class Player {
   public:
    virtual ~Player() = default;
    // The application is about to change the eyes: stop drawing over it.
    virtual void applicationActivity() = 0;
    // True for the blocks this player hands to EyeControl::ProcessEyeBlock itself.
    virtual bool ownsBlock(const BlockEye& block) const = 0;
  };

  // One player at a time; registering another replaces it.
  static void attach(Player* player);
  // Does nothing unless `player` is the one attached.
  static void detach(Player* player);

  // Called by every command before it changes what the eyes show.
  static void applicationActivity();
  // ProcessEyeBlock's form of the above: the attached player's own blocks are no activity.
  static void blockStarts(const BlockEye& block);

  class Reading {
   public:
    Reading();

   private:
    std::shared_lock<std::shared_mutex> lock_;
  };

  class Change {
   public:
    Change();

   private:
    std::unique_lock<std::shared_mutex> lock_;
  };
};
