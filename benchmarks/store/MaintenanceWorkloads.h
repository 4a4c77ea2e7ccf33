#pragma once

#include "Workloads.h"

/// What stores do with what is replaced: merging tables and collecting garbage while writers go on.
std::vector<Workload> maintenanceWorkloads();
