// SPDX-License-Identifier: Apache-2.0
#pragma once

// What the figures share. Each runs in a fresh virtual device of its own and prints its samples: a
// line of figure, amount of work, side and value, separated by tabs.

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

void road();
void burst();
void count();
void size();
void capture_switch();
void idle();
void armed();

// Ends the figure with a message when what it measures has gone wrong.
void require(bool condition, const std::string& what);

void print_sample(const char* figure, int work, const std::string& side, double value);

class stopwatch {
  public:
    double millis() const {
        const auto passed = std::chrono::steady_clock::now() - start_;
        return std::chrono::duration<double, std::milli>(passed).count();
    }

  private:
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

// A program of one side with all that it starts, from a shell line; its end is theirs.
class side_process {
  public:
    explicit side_process(const std::string& shell_line);
    ~side_process();
    side_process(const side_process&) = delete;
    side_process& operator=(const side_process&) = delete;

    pid_t pid() const { return pid_; }

  private:
    pid_t pid_;
};

// Starts a program with these files as its standard output and error; without a shell, whose start
// would count.
pid_t start_program(const std::vector<std::string>& argv, int output, int error);

// A fifo that programs write lines to, at this path as long as this lives.
class line_fifo {
  public:
    explicit line_fifo(const std::string& path);
    ~line_fifo();
    line_fifo(const line_fifo&) = delete;
    line_fifo& operator=(const line_fifo&) = delete;

    // Waits for the next one.
    std::string next();

  private:
    std::string path_;
    int fd_;
    std::string rest_;
};

void set_property(const char* name, const char* value);

// The folders that the daemon finds on a phone that has run for a while.
void make_phone_folders();

// Detection with all its categories.
void switch_detection_on();
