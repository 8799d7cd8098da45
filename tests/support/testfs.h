// Scratch directories and small file helpers for tests that touch the disk.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

// A fresh directory under /tmp, removed with all it holds when the test is
// done; the tag names the unit, so a leftover tells whose it is.
class TempDir {
public:
    explicit TempDir(const std::string& tag = "test")
    {
        std::string tmpl = "/tmp/kst-" + tag + "-XXXXXX";
        const char* p = mkdtemp(tmpl.data());
        EXPECT_NE(p, nullptr) << tmpl;
        path_ = p ? p : "";
    }
    ~TempDir() { (void)remove(); }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& path() const { return path_; }
    std::string at(const std::string& rel) const { return path_ + "/" + rel; }

    // Writes a file of exactly this content (mode 0644) and returns its path.
    std::string make(const std::string& rel, const std::string& content) const
    {
        const std::string p = at(rel);
        int fd = open(p.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        EXPECT_GE(fd, 0) << p;
        EXPECT_EQ(write(fd, content.data(), content.size()), (ssize_t)content.size()) << p;
        close(fd);
        return p;
    }

    // The names in the directory itself, "." and ".." left out.
    std::vector<std::string> entries() const
    {
        std::vector<std::string> out;
        DIR* d = opendir(path_.c_str());
        if (d == nullptr)
            return out;
        while (dirent* e = readdir(d)) {
            if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0)
                out.emplace_back(e->d_name);
        }
        closedir(d);
        return out;
    }

    // Removes the directory now; the status is the shell's, 0 when it went.
    int remove()
    {
        if (path_.empty())
            return 0;
        const int rc = system(("rm -rf " + path_).c_str());
        path_.clear();
        return rc;
    }

private:
    std::string path_;
};

// Runs a piece of a test from inside a directory, going back afterwards.
class InDir {
public:
    explicit InDir(const std::string& dir)
    {
        EXPECT_NE(getcwd(saved_, sizeof(saved_)), nullptr);
        EXPECT_EQ(chdir(dir.c_str()), 0) << dir;
    }
    ~InDir() { (void)!chdir(saved_); }
    InDir(const InDir&) = delete;
    InDir& operator=(const InDir&) = delete;

private:
    char saved_[PATH_MAX] = {};
};

inline bool is_dir(const std::string& p)
{
    struct stat st {};
    return stat(p.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// Anything under that name, a dangling link included.
inline bool exists(const std::string& p)
{
    struct stat st {};
    return lstat(p.c_str(), &st) == 0;
}

// Everything a descriptor gives until its end (or its first failure).
inline std::string read_all(int fd)
{
    std::string s;
    char buf[4096];
    ssize_t n;
    while ((n = read(fd, buf, sizeof(buf))) > 0)
        s.append(buf, (size_t)n);
    return s;
}

// A whole file by name; empty when it cannot be read.
inline std::string slurp(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}
