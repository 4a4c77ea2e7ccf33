#pragma once

#include "BenchmarkStore.h"
#include "Measurement.h"

#include <functional>
#include <string>
#include <vector>

/// What one process does with a store.
struct StageContext {
    BenchmarkStore& store; // not open
    std::string path;      // of the store; what the stage before left
    double scale;          // of all numbers of records
};
using Stage = std::function<std::vector<Measurement>(const StageContext&)>;

/// A group of measurements on one store. Each stage has a process of its own; the first finds no store.
struct Workload {
    const char* name;
    const char* what;
    std::vector<Stage> stages;
};

std::vector<Workload> allWorkloads();
