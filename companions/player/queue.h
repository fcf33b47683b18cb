// The files that wait in the daemon's output directory, in the order in which they were made.
//
// To take a file or to move it aside, the queue renames it to a hidden name under the directory's
// lock, so that the daemon no longer counts it and cannot remove it. Files that an earlier player
// left hidden wait again, in their old places.
#pragma once

#include <stdint.h>

#include <functional>
#include <list>
#include <memory>
#include <string>

#include "outputname.h"

// A file of the queue.
struct Piece {
  std::string name;  // The daemon's name for the file.
  OutputName parts;  // The parts of that name.
  std::string file;  // Its present name in the directory.
  int64_t time = 0;  // When it was written, in nanoseconds since 1970.
  uint64_t place = 0;

  bool IsHidden() const { return file != name; }
};

class Queue {
 public:
  // Serves the display ids for which is_mine_ returns true; files of other ids are only looked at.
  // Throws a string if path_ is no directory.
  Queue(const std::string& path_, std::function<bool(const std::string& id_)> is_mine_);
  ~Queue();

  // Readable when the directory has changed; -1 if the system has no such descriptor.
  int Descriptor() const;

  // Brings the queue up to date if the directory has changed, and once a second in any case. False
  // if another process holds the lock: to be called again soon. Throws a string if the directory is
  // gone.
  //
  // Files that are found together are put in the order of their numbers, after those that were
  // found before. So files whose numbers begin at 0 again are newer. If a single look finds both,
  // the times of the files decide.
  bool Update();

  // The waiting pieces, in the order of their places.
  const std::list<Piece>& Waiting() const;
  // Ids of waiting files that belong to other players.
  const std::list<std::string>& OtherIds() const;
  // Grows with every change of Waiting().
  uint64_t Version() const;

  enum class Result { kDone, kLocked, kGone };
  // Removes a waiting piece from the queue, hides its file, and sets taken_. Changes nothing if
  // another process holds the lock. Throws a string if the file cannot be renamed.
  Result Take(const Piece& piece_, Piece& taken_);
  // Hides the file of a waiting piece, which keeps its place.
  Result MoveAside(const Piece& piece_);

  // The path of a taken piece.
  std::string PathOf(const Piece& taken_) const;
  // Lets a taken piece wait again, in its place.
  void PutBack(const Piece& taken_);
  // Deletes a taken piece.
  void Remove(const Piece& taken_);
  // Deletes the files that were moved aside, after the daemon has emptied the directory.
  void RemoveMovedAside();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl;
};
