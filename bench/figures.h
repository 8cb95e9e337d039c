// SPDX-License-Identifier: Apache-2.0
#pragma once

// What the figures share. Every figure runs in a fresh virtual device, measures the daemon and its
// rivals in turns, and prints samples: lines of figure, amount of work, side and value, separated
// by tabs. All functions throw std::runtime_error on failure. One thread.

#include <sys/types.h>

#include <fstream>
#include <functional>
#include <string>
#include <vector>

// --- Figures, by their amount of work ------------------------------------------------------------

void measure_road(int kept_folders);
void measure_burst(int tombstones_at_once);
void measure_count(int folders);
void measure_size(int files);
void measure_switch(int channels);
void measure_idle(int seconds);
void measure_armed(int starts);

// --- Steps ---------------------------------------------------------------------------------------

// Throws unless `condition`.
void require(bool condition, const std::string& failure);
void set_property(const std::string& name, const std::string& value);
// Makes the folders that a collector needs below `root`, and empties those that are there.
void make_folders(const std::string& root);

// --- Samples -------------------------------------------------------------------------------------

// `value` is in the unit that bench/goals has for the figure.
void print_sample(const std::string& figure, int work, const std::string& side, double value);

// Runs `work` and returns the milliseconds that it takes.
double millis_of(const std::function<void()>& work);

struct side {
    std::string name;
    std::function<double()> measure;  // does the work once and returns its milliseconds
};

// Measures each side once in every round, so that load from outside meets all of them alike.
void measure_in_turns(const std::string& figure, int work, int rounds,
                      const std::vector<side>& sides);

// --- Programs ------------------------------------------------------------------------------------

// A program and its children, in a process group of their own that the destructor kills.
class program {
  public:
    // Returns once /data/NAME.log, its standard error, has all of `texts`.
    program(const std::string& name, const std::string& command,
            const std::vector<std::string>& texts);
    ~program();
    program(const program&) = delete;
    program& operator=(const program&) = delete;

    pid_t pid() const { return pid_; }

  private:
    pid_t pid_;
};

// CPU time in user and kernel mode: of the process, and of its reaped children. The latter has a
// resolution of 10 ms.
struct cpu_millis {
    double own;
    double children;
};
cpu_millis cpu_of(pid_t pid);

// Replaces what stands at `path` with a named pipe that programs write lines to. std::getline
// waits, for ever if need be: the stream is a writer, too, and never reads an end. It throws on any
// failure.
std::fstream open_fifo(const std::string& path);
