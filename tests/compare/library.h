// The library of one side, as its public header and its list of exported names describe it. It is loaded by dlopen, so
// that two builds of it are in one process; what the header declares is never linked.
#ifndef TESTS_COMPARE_LIBRARY_H
#define TESTS_COMPARE_LIBRARY_H

#include <string>

namespace compare {

class Library {
  public:
    explicit Library(const char *path);  // ends the program when it cannot be loaded
    void *find(const char *name) const;  // ends the process when the name is not there
    std::string path() const { return path_; }

  private:
    std::string path_;
    void *handle_;
};

extern const Library *library;  // the one under test in this process

// The exported function or datum of that name.
#define EXPORTED(name) (*reinterpret_cast<decltype(&::name)>(compare::library->find(#name)))

}  // namespace compare

#endif
