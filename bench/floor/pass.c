// The least work of one idle pass: the work that any program with the daemon's visible behaviour
// must do.
//
// In each pass: the checksum of the configuration, the glossary fed to expat with empty handlers,
// a scan of every input directory, a count of the output directory, and the status file. A scan
// locks and lists the directory, sorts the names, and per file opens, reads and closes it, checks
// its UTF-8, computes its CRC, writes two log lines with one write each and looks the name up
// among the known ones.
//
// pass [-c CONFIG] [-r] [-g GLOSSARY] [-s STATUS] [-o OUTPUT] [-f] [-x] DIRECTORY...
//   -r  the configuration is checked for UTF-8 and fed to expat in every pass
//   -f  every scan makes zeroed slots of 4096 bytes and keeps the names in them
//   -x  message files are fed to expat instead of being logged and summed
#include <dirent.h>
#include <dlfcn.h>
#include <expat.h>
#include <fcntl.h>
#include <signal.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <unistd.h>

enum { kSlotSize = 4096, kMaxText = 65536, kFeedBytes = 1024, kPassPause = 100000 };

static volatile sig_atomic_t exit_request;

static void HandleInt(int sig) {
  (void)sig;
  exit_request = 1;
}

// CRC-16/KERMIT, eight bytes at a step.
static uint16_t crc_table[8][256];

static void MakeTable(void) {
  for (unsigned int i = 0; i < 256; ++i) {
    unsigned int entry = i;
    for (int bit = 0; bit < 8; ++bit) {
      entry = (entry & 1) != 0 ? (entry >> 1) ^ 0x8408 : entry >> 1;
    }
    crc_table[0][i] = (uint16_t)entry;
  }
  for (unsigned int i = 0; i < 256; ++i) {
    for (int k = 1; k < 8; ++k) {
      const unsigned int before = crc_table[k - 1][i];
      crc_table[k][i] = (uint16_t)(crc_table[0][before & 0xFF] ^ (before >> 8));
    }
  }
}

static uint16_t Crc(uint16_t initial, const unsigned char* p, size_t length) {
  unsigned int crc = initial;
  for (; length >= 8; length -= 8, p += 8) {
    crc = crc_table[7][(crc ^ p[0]) & 0xFF] ^ crc_table[6][(crc >> 8) ^ p[1]] ^ crc_table[5][p[2]] ^
          crc_table[4][p[3]] ^ crc_table[3][p[4]] ^ crc_table[2][p[5]] ^ crc_table[1][p[6]] ^
          crc_table[0][p[7]];
  }
  for (; length > 0; --length, ++p) {
    crc = crc_table[0][(crc ^ *p) & 0xFF] ^ (crc >> 8);
  }
  return (uint16_t)crc;
}

static int IsContinuation(const unsigned char* p, const unsigned char* end) {
  return p < end && (*p & 0xC0) == 0x80;
}

static int IsValidUtf8(const unsigned char* p, size_t length) {
  const unsigned char* const end = p + length;
  while (p < end) {
    uint64_t word;
    while (end - p >= 8 && (memcpy(&word, p, 8), (word & 0x8080808080808080u) == 0)) {
      p += 8;
    }
    if (p == end) {
      break;
    }
    if (*p < 0x80) {
      ++p;
    } else if (*p >= 0xC2 && *p < 0xE0) {
      if (!IsContinuation(p + 1, end)) return 0;
      p += 2;
    } else if (*p >= 0xE0 && *p < 0xF0) {
      if (!IsContinuation(p + 1, end) || !IsContinuation(p + 2, end) ||
          (*p == 0xE0 && p[1] < 0xA0) || (*p == 0xED && p[1] >= 0xA0)) {
        return 0;
      }
      p += 3;
    } else if (*p >= 0xF0 && *p < 0xF5) {
      if (!IsContinuation(p + 1, end) || !IsContinuation(p + 2, end) ||
          !IsContinuation(p + 3, end) || (*p == 0xF0 && p[1] < 0x90) ||
          (*p == 0xF4 && p[1] >= 0x90)) {
        return 0;
      }
      p += 4;
    } else {
      return 0;
    }
  }
  return 1;
}

static void Fail(const char* what) {
  perror(what);
  exit(2);
}

// The whole file, in a buffer that is kept.
static size_t ReadWhole(const char* path, char** text) {
  static char* buffer;
  static size_t size;
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) Fail(path);
  size_t length = 0;
  for (;;) {
    if (size - length < kMaxText) {
      size = size * 2 + kMaxText;
      buffer = realloc(buffer, size);
      if (buffer == NULL) Fail("realloc");
    }
    const ssize_t count = read(fd, buffer + length, kMaxText);
    if (count < 0) Fail(path);
    length += (size_t)count;
    if (count < kMaxText) break;
  }
  close(fd);
  *text = buffer;
  return length;
}

static uint16_t FileCrc(const char* path) {
  static unsigned char block[16384];
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) Fail(path);
  uint16_t crc = 0;
  ssize_t count = 0;
  do {
    count = read(fd, block, sizeof(block));
    if (count < 0) Fail(path);
    crc = Crc(crc, block, (size_t)count);
  } while (count == (ssize_t)sizeof(block));
  close(fd);
  return crc;
}

static void Start(void* data, const char* name, const char** attributes) {
  (void)data, (void)name, (void)attributes;
}
static void End(void* data, const char* name) { (void)data, (void)name; }
static void Text(void* data, const char* text, int length) { (void)data, (void)text, (void)length; }

// Null if the library has no reparse deferral. Looked up once, as in the daemon.
static XML_Bool (*set_deferral)(XML_Parser, XML_Bool);

static void FindDeferral(void) {
  *(void**)&set_deferral = dlsym(RTLD_DEFAULT, "XML_SetReparseDeferralEnabled");
}

static void FeedExpat(const char* text, size_t length) {
  if (!IsValidUtf8((const unsigned char*)text, length)) {
    fputs("invalid UTF-8\n", stderr);
    exit(2);
  }
  XML_Parser parser = XML_ParserCreate("UTF-8");
  XML_SetElementHandler(parser, Start, End);
  XML_SetCharacterDataHandler(parser, Text);
  for (size_t fed = 0; fed < length; fed += kFeedBytes) {
    const size_t rest = length - fed;
    if (set_deferral != NULL && rest <= kFeedBytes) {
      set_deferral(parser, XML_FALSE);
    }
    if (XML_Parse(parser, text + fed, (int)(rest < kFeedBytes ? rest : kFeedBytes), XML_FALSE) !=
        XML_STATUS_OK) {
      fputs("malformed XML\n", stderr);
      exit(2);
    }
  }
  XML_ParserFree(parser);
}

struct Known {
  char* name;
  uint16_t crc;
};

struct Input {
  const char* path;     // Ends in "/".
  struct Known* known;  // In byte order of the names.
  size_t known_count;
  char* names;  // One after the other, each with its terminating zero.
  size_t names_size;
  char** sorted;
  size_t sorted_size;
};

static int CompareNames(const void* a, const void* b) {
  return strcmp(*(char* const*)a, *(char* const*)b);
}

static int IsListed(const struct dirent* entry) {
  return entry->d_type == DT_REG && entry->d_name[0] != '.';
}

static char** RoomForNames(struct Input* input, size_t count) {
  if (input->sorted_size < count) {
    input->sorted_size = count * 2;
    input->sorted = realloc(input->sorted, input->sorted_size * sizeof(char*));
    if (input->sorted == NULL) Fail("realloc");
  }
  return input->sorted;
}

// Lists into a buffer that is kept. It grows rarely, so the addresses are taken at the end.
static size_t ListNames(struct Input* input, DIR* dir) {
  size_t used = 0;
  size_t count = 0;
  const struct dirent* entry;
  while ((entry = readdir(dir)) != NULL) {
    if (!IsListed(entry)) continue;
    const size_t size = strlen(entry->d_name) + 1;
    if (input->names_size - used < size) {
      input->names_size = input->names_size * 2 + 4096;
      input->names = realloc(input->names, input->names_size);
      if (input->names == NULL) Fail("realloc");
    }
    memcpy(input->names + used, entry->d_name, size);
    used += size;
    ++count;
  }
  char** const sorted = RoomForNames(input, count);
  char* next = input->names;
  for (size_t i = 0; i < count; ++i) {
    sorted[i] = next;
    next += strlen(next) + 1;
  }
  return count;
}

// Counts first, as the slots are made at once.
static size_t ListSlots(struct Input* input, DIR* dir, char** slots) {
  size_t total = 0;
  const struct dirent* entry;
  while ((entry = readdir(dir)) != NULL) {
    total += (size_t)IsListed(entry);
  }
  if (total == 0) return 0;
  *slots = calloc(total, kSlotSize);
  if (*slots == NULL) Fail("calloc");
  char** const sorted = RoomForNames(input, total);
  rewinddir(dir);
  size_t count = 0;
  while (count < total && (entry = readdir(dir)) != NULL) {
    if (!IsListed(entry)) continue;
    sorted[count] = *slots + count * kSlotSize;
    memcpy(sorted[count], entry->d_name, strlen(entry->d_name) + 1);
    ++count;
  }
  return count;
}

static void WriteLine(const char* line, size_t length) {
  if (write(STDERR_FILENO, line, length) != (ssize_t)length) Fail("write");
}

// The file's checksum. The text is read into its place in the log line.
static uint16_t IndexText(const char* path, size_t path_length) {
  static const char valid[] = "Original is valid UTF-8\n";
  static char line[kMaxText + 8192];
  char* end = line;
  end = (char*)memcpy(end, "From ", 5) + 5;
  end = (char*)memcpy(end, path, path_length) + path_length;
  end = (char*)memcpy(end, ": ", 2) + 2;
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) Fail(path);
  const ssize_t length = read(fd, end, kMaxText);
  close(fd);
  if (length < 0 || !IsValidUtf8((const unsigned char*)end, (size_t)length)) Fail(path);
  WriteLine(valid, sizeof(valid) - 1);
  end[length] = '\n';
  WriteLine(line, (size_t)(end - line + length + 1));
  return Crc(0, (const unsigned char*)end, (size_t)length);
}

static void MakeKnown(struct Input* input, size_t count) {
  input->known = calloc(count, sizeof(struct Known));
  input->known_count = count;
  for (size_t i = 0; i < count; ++i) {
    input->known[i].name = strdup(input->sorted[i]);
  }
}

static void Scan(struct Input* input, int fill_slots, int is_xml) {
  static char path[8192];
  char* slots = NULL;
  DIR* dir = opendir(input->path);
  if (dir == NULL) Fail(input->path);
  flock(dirfd(dir), LOCK_EX);
  const size_t count = fill_slots ? ListSlots(input, dir, &slots) : ListNames(input, dir);
  if (count > 1) {
    qsort(input->sorted, count, sizeof(char*), CompareNames);
  }
  closedir(dir);
  if (input->known_count == 0 && count > 0) MakeKnown(input, count);
  const size_t path_length = strlen(input->path);
  memcpy(path, input->path, path_length);
  size_t next_known = 0;
  for (size_t i = 0; i < count; ++i) {
    const size_t name_length = strlen(input->sorted[i]);
    memcpy(path + path_length, input->sorted[i], name_length + 1);
    uint16_t crc = 0;
    if (is_xml) {
      char* text;
      const size_t length = ReadWhole(path, &text);
      FeedExpat(text, length);
    } else {
      crc = IndexText(path, path_length + name_length);
    }
    while (next_known < input->known_count &&
           strcmp(input->known[next_known].name, input->sorted[i]) < 0) {
      ++next_known;
    }
    if (next_known < input->known_count) input->known[next_known].crc = crc;
  }
  free(slots);
}

static int CountFiles(const char* path) {
  DIR* dir = opendir(path);
  if (dir == NULL) Fail(path);
  flock(dirfd(dir), LOCK_EX);
  int count = 0;
  const struct dirent* entry;
  while ((entry = readdir(dir)) != NULL) {
    count += IsListed(entry);
  }
  closedir(dir);
  return count;
}

static void WriteStatus(const char* path, const struct Input* inputs, int count) {
  static char text[1 << 20];
  static int timestamp;
  size_t length = (size_t)snprintf(
      text, sizeof(text),
      "<tts-status now-playing=\"0\" output-bound=\"0\" state=\"run\" timestamp=\"%d\">\n",
      timestamp++);
  for (int i = 0; i < count; ++i) {
    length += (size_t)snprintf(text + length, sizeof(text) - length,
                               "    <directory id=\"bench%03d\" path=\"%s\" status=\"1\" "
                               "total-file-count=\"%zu\" updated-file-count=\"0\"/>\n",
                               i, inputs[i].path, inputs[i].known_count);
  }
  length += (size_t)snprintf(text + length, sizeof(text) - length, "</tts-status>\n");
  const int fd = open(path, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (fd < 0 || write(fd, text, length) != (ssize_t)length) Fail(path);
  close(fd);
}

int main(int argc, char** argv) {
  const char* config = NULL;
  const char* glossary = NULL;
  const char* status = NULL;
  const char* output = NULL;
  int is_reload = 0;
  int fill_slots = 0;
  int is_xml = 0;
  int option;
  while ((option = getopt(argc, argv, "c:rg:s:o:fx")) != -1) {
    switch (option) {
      case 'c':
        config = optarg;
        break;
      case 'r':
        is_reload = 1;
        break;
      case 'g':
        glossary = optarg;
        break;
      case 's':
        status = optarg;
        break;
      case 'o':
        output = optarg;
        break;
      case 'f':
        fill_slots = 1;
        break;
      case 'x':
        is_xml = 1;
        break;
      default:
        return 2;
    }
  }
  const int input_count = argc - optind;
  struct Input* inputs = calloc((size_t)input_count + 1, sizeof(struct Input));
  for (int i = 0; i < input_count; ++i) {
    inputs[i].path = argv[optind + i];
  }
  signal(SIGINT, HandleInt);
  MakeTable();
  FindDeferral();
  uint16_t sum = 0;  // Used at the end, so that the compiler keeps every checksum.
  while (!exit_request) {
    char* text;
    if (config != NULL) {
      sum ^= FileCrc(config);
      if (is_reload) {
        const size_t length = ReadWhole(config, &text);
        FeedExpat(text, length);
      }
    }
    if (glossary != NULL) {
      sum ^= FileCrc(glossary);
      const size_t length = ReadWhole(glossary, &text);
      FeedExpat(text, length);
    }
    for (int i = 0; i < input_count; ++i) {
      Scan(&inputs[i], fill_slots, is_xml);
    }
    if (output != NULL) CountFiles(output);
    if (status != NULL) WriteStatus(status, inputs, input_count);
    usleep(kPassPause);
  }
  return sum == 1;
}
