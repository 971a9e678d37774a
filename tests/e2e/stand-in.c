// SPDX-License-Identifier: MIT
// stand-in.c: replaces every actor program and records how it was started.
//
// It writes /run/stage/actors/records/PID.json, which is complete as soon as it exists: argv, parent,
// session, working directory, environment, open descriptors, and blocked, ignored and caught signals. Then it
// follows /run/stage/actors/behaviour/PROGRAM, or stays until it is killed. A shell script would not
// do: a shell changes the signals, descriptors and environment.
#include <dirent.h>
#include <errno.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

extern char** environ;

static void put_text(FILE* out, const char* text) {
  fputc('"', out);
  for (; *text; ++text) {
    unsigned char byte = (unsigned char)*text;
    if (byte == '"' || byte == '\\' || byte < 0x20) {
      fprintf(out, "\\u%04x", byte);
    } else {
      fputc(byte, out);
    }
  }
  fputc('"', out);
}

static void put_texts(FILE* out, const char* name, char** texts) {
  fprintf(out, "\"%s\": [", name);
  for (char** text = texts; *text; ++text) {
    if (text != texts) fputs(", ", out);
    put_text(out, *text);
  }
  fputs("],\n", out);
}

static void put_descriptors(FILE* out, int own) {
  DIR* directory = opendir("/proc/self/fd");
  fputs("\"descriptors\": {", out);
  const char* separator = "";
  struct dirent* entry;
  while ((entry = readdir(directory))) {
    int descriptor = atoi(entry->d_name);
    if (entry->d_name[0] == '.' || descriptor == dirfd(directory) || descriptor == own) continue;
    char target[4096];
    ssize_t length = readlinkat(dirfd(directory), entry->d_name, target, sizeof target - 1);
    target[length < 0 ? 0 : length] = '\0';
    fprintf(out, "%s\"%d\": ", separator, descriptor);
    put_text(out, target);
    separator = ", ";
  }
  fputs("},\n", out);
  closedir(directory);
}

static void put_signals(FILE* out) {
  sigset_t blocked;
  sigprocmask(SIG_BLOCK, NULL, &blocked);
  const char* names[] = {"blocked", "ignored", "caught"};
  for (int kind = 0; kind < 3; ++kind) {
    fprintf(out, "\"%s\": [", names[kind]);
    const char* separator = "";
    for (int number = 1; number < NSIG; ++number) {
      struct sigaction action;
      if (sigaction(number, NULL, &action) != 0) continue;
      int is_default = action.sa_handler == SIG_DFL;
      int is_ignored = action.sa_handler == SIG_IGN;
      int applies = kind == 0   ? sigismember(&blocked, number)
                    : kind == 1 ? is_ignored
                                : !is_default && !is_ignored;
      if (!applies) continue;
      fprintf(out, "%s%d", separator, number);
      separator = ", ";
    }
    fputs("],\n", out);
  }
}

static void record(char** argv) {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  char draft[64];
  char final[64];
  snprintf(draft, sizeof draft, "/run/stage/actors/records/.%d", getpid());
  snprintf(final, sizeof final, "/run/stage/actors/records/%d.json", getpid());
  FILE* out = fopen(draft, "w");
  if (!out) exit(111);
  fprintf(out, "{\"pid\": %d, \"parent\": %d, \"session\": %d, \"started\": %lld.%09ld,\n", getpid(),
          getppid(), getsid(0), (long long)now.tv_sec, now.tv_nsec);
  char directory[4096];
  fputs("\"directory\": ", out);
  put_text(out, getcwd(directory, sizeof directory) ? directory : "");
  fputs(",\n", out);
  put_texts(out, "argv", argv);
  put_texts(out, "environment", environ);
  put_descriptors(out, fileno(out));
  put_signals(out);
  fputs("\"end\": true}\n", out);
  if (fclose(out) != 0 || rename(draft, final) != 0) exit(112);
}

static void stay(void) {
  for (;;) pause();
}

int main(int argc, char** argv) {
  const char* slash = strrchr(argv[0], '/');
  const char* program = slash ? slash + 1 : argv[0];
  char path[256];
  snprintf(path, sizeof path, "/run/stage/actors/behaviour/%s", program);
  char behaviour[64] = "stay";
  FILE* in = fopen(path, "r");
  if (in) {
    if (!fgets(behaviour, sizeof behaviour, in)) strcpy(behaviour, "stay");
    behaviour[strcspn(behaviour, "\n")] = '\0';
    fclose(in);
  }

  (void)argc;
  if (strcmp(behaviour, "ignore-term") == 0) {
    record(argv);  // before it changes its signals
    signal(SIGTERM, SIG_IGN);
    snprintf(path, sizeof path, "/run/stage/actors/records/%d.deaf", getpid());
    fclose(fopen(path, "w"));
    stay();
  }
  record(argv);
  if (strncmp(behaviour, "exit ", 5) == 0) return atoi(behaviour + 5);
  if (strcmp(behaviour, "stop-self") == 0) raise(SIGSTOP);
  if (strcmp(behaviour, "grandchild") == 0 && fork() == 0) stay();
  if (strcmp(behaviour, "daemonise") == 0 && (fork() > 0 || (setsid() > 0 && fork() > 0))) return 0;
  stay();
}
