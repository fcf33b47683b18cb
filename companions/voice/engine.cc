#include "engine.h"

#include <espeak-ng/espeak_ng.h>
#include <espeak-ng/speak_lib.h>
#include <glob.h>
#include <stdio.h>
#include <stdlib.h>

#include <algorithm>
#include <new>
#include <utility>

struct audio_object;

// The engine looks for a sound device even if it does not play: it would connect to a sound server,
// start a thread and write into the home directory. This function replaces the one of its audio
// library, and finds no device.
extern "C" audio_object* create_audio_device_object(const char* /*device*/,
                                                    const char* /*application*/,
                                                    const char* /*description*/) {
  return nullptr;
}

namespace {

constexpr size_t kLongest = 3600;  // Seconds.

struct Recording {
  Samples samples;
  size_t limit;  // Samples.
  const char* trouble = nullptr;
};

// The engine's error as a text without the line end.
std::string Described(espeak_ng_STATUS status_, espeak_ng_ERROR_CONTEXT context_) {
  char* text = nullptr;
  size_t size = 0;
  FILE* const stream = open_memstream(&text, &size);
  if (stream == nullptr) {
    return "out of memory";
  }
  espeak_ng_PrintStatusCodeMessage(status_, stream, context_);
  fclose(stream);
  const std::string described(text, size);
  free(text);
  constexpr char kPrefix[] = "Error: ";
  const size_t start = described.rfind(kPrefix, 0) == 0 ? sizeof(kPrefix) - 1 : 0;
  return described.substr(start, described.find('\n') - start);
}

void Require(espeak_ng_STATUS status_, espeak_ng_ERROR_CONTEXT context_ = nullptr) {
  if (status_ != ENS_OK) {
    throw "espeak-ng failed: " + Described(status_, context_);
  }
}

// The engine calls this with further samples. A result other than 0 ends the synthesis.
int Record(short* samples_, int count_, espeak_EVENT* events_) noexcept {
  if (samples_ == nullptr || count_ <= 0) {
    return 0;
  }
  auto& recording = *static_cast<Recording*>(events_->user_data);
  if (recording.samples.size() + static_cast<size_t>(count_) > recording.limit) {
    recording.trouble = "the sound is longer than an hour";
    return 1;
  }
  try {
    recording.samples.insert(recording.samples.end(), samples_, samples_ + count_);
  } catch (const std::bad_alloc&) {
    recording.trouble = "out of memory";
    return 1;
  }
  return 0;
}

// The name under which the engine finds a voice at once, such as "gmw/en" for "en": the voice's
// file, if there is one of that name. For any other name, the engine reads the files of all voices,
// which takes a quarter of the processor time for ten words.
std::string QuickName(const std::string& voice_) {
  const char* data = nullptr;
  espeak_Info(&data);
  const std::string languages = std::string(data) + "/lang/";
  const size_t variant = std::min(voice_.find('+'), voice_.size());
  glob_t found = {};
  std::string name = voice_;
  if (glob((languages + "*/" + voice_.substr(0, variant)).c_str(), 0, nullptr, &found) == 0 &&
      found.gl_pathc == 1) {
    name = found.gl_pathv[0] + languages.size() + voice_.substr(variant);
  }
  globfree(&found);
  return name;
}

}  // namespace

Engine::Engine(const Arguments& arguments_) {
  espeak_ng_ERROR_CONTEXT context = nullptr;
  espeak_ng_InitializePath(nullptr);
  const espeak_ng_STATUS status = espeak_ng_Initialize(&context);
  Require(status, context);
  Require(espeak_ng_InitializeOutput(ENOUTPUT_MODE_SYNCHRONOUS, 0, nullptr));
  if (espeak_ng_SetVoiceByName(QuickName(arguments_.voice).c_str()) != ENS_OK) {
    espeak_VOICE language = {};
    language.languages = arguments_.voice.c_str();
    Require(espeak_ng_SetVoiceByProperties(&language));
  }
  Require(espeak_ng_SetParameter(espeakRATE, arguments_.speed, 0));
  Require(espeak_ng_SetParameter(espeakPITCH, arguments_.pitch, 0));
  Require(espeak_ng_SetParameter(espeakVOLUME, arguments_.volume, 0));
  espeak_SetSynthCallback(Record);
}

int Engine::Rate() const { return espeak_ng_GetSampleRate(); }

Samples Engine::Speak(const std::string& markup_) {
  Recording recording;
  recording.limit = kLongest * static_cast<size_t>(Rate());
  const espeak_ng_STATUS status =
      espeak_ng_Synthesize(markup_.c_str(), markup_.size() + 1, 0, POS_CHARACTER, 0,
                           espeakCHARS_UTF8 | espeakSSML, nullptr, &recording);
  if (recording.trouble != nullptr) {
    throw std::string(recording.trouble);
  }
  Require(status);
  return std::move(recording.samples);
}
