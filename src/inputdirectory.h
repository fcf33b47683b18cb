// One source of messages: a directory whose files are scanned, queued, and spoken one by one.
//
// A directory of type "local" is on this machine. For type "cifs" or "ftp" a helper process mirrors
// the remote files into a private watch directory. It rewrites the file ".helper.timestamp" there
// to show that it is alive.
//
// Built from a "directory" element of the configuration. Each Process() is one scan; between
// scans GetWords() hands out the active message a snippet at a time.
#pragma once

#include <list>
#include <string>

class FileParser;
class XMLElement;

class InputDirectory {
 public:
  // Empties the last-played directory and, if it is local, the directory itself: old messages are
  // not spoken. Starts the helper of a remote directory.
  // Throws a string if an attribute is unusable, if the helper's path is empty but needed, or if
  // the watch directory cannot be made.
  InputDirectory(const XMLElement& element_, const std::string& cifs_helper_script_path_,
                 const std::string& ftp_helper_app_path_, int text_snippet_word_limit_);
  // Stops the helper, which takes 2 seconds, and removes its watch directory.
  ~InputDirectory();

  InputDirectory(const InputDirectory&) = delete;
  InputDirectory& operator=(const InputDirectory&) = delete;

  // True if element_ equals the one that this object was built from (XMLElement::operator==).
  bool IsIdentical(const XMLElement& element_) const;

  // One scan: notices new and changed files and, if there is no active message, makes the oldest
  // queued file the active message. Throws a string if the directory cannot be listed.
  void Process();

  // The next words of the active message: more than the word limit, up to twice that number, to
  // end at a full stop or comma. Fewer at the end of the message; empty if there is no active
  // message. Taking the last words of the last play ends the message.
  std::list<std::string> GetWords();
  // Goes back to the first word of the active message.
  void RestartMessage();
  // Drops the active message.
  void StopMessage();
  // True until the first GetWords() after a message became active.
  bool FirstPlayOfActiveMessage() const;

  // A new "directory" element that describes the state, with a "message" child for the active
  // message. Owned by the caller. Throws a string if the last-played directory of a directory
  // in cache mode cannot be opened.
  XMLElement* GetStatus() const;

  // The attributes of the element, or their defaults. A path that is not configured is empty.
  int GetPriority() const;
  // Unique among all directories of the process; 0 if there is no active message.
  int GetActiveMessageID() const;
  std::string GetActiveMessageFilename() const;
  std::string GetDisplayId() const;
  std::string GetTranslatorArguments() const;
  int GetPreview() const;
  std::string GetLastPlayedPath() const;
  std::string GetBumperPath() const;
  std::string GetSpacerPath() const;
  std::string GetSilencePath() const;
  std::string GetParserID() const;
  std::string GetEncoding() const;

  // Sets the parser that reads this directory's files. Null for none: files are then ignored, and
  // queued files are dropped.
  // REQUIRES: it outlives its use by this object, which does not own it.
  void SetFileParser(const FileParser* file_parser_);

 private:
  struct Impl;
  Impl* impl;  // Owned.
};
