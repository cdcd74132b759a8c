// The steps of a live check and their outcomes.
#pragma once

#include <cstdio>
#include <string>

/// A step's outcome, printed at once: a live check can take half a minute.
class steps {
  public:
    void good(const std::string &text) { print("ok  ", text); }
    void bad(const std::string &text) {
        print("FAIL", text);
        failed_ = true;
    }
    void note(const std::string &text) { print("note", text); }
    bool failed() const { return failed_; }

  private:
    void print(const char *word, const std::string &text) {
        printf("%s  %s\n", word, text.c_str());
        fflush(stdout);
    }
    bool failed_ = false;
};
