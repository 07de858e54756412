#ifndef BENCH_FIGURES_H
#define BENCH_FIGURES_H

#include <optional>
#include <string>
#include <vector>

/// Collects measured values under a name, and prints them as rows of the table that scripts/bench shows: the
/// fields are figure, ours, reference, ratio, goal and verdict, with tabs between.
namespace figures {

using Samples = std::vector<double>;

/// @throws std::logic_error when there are fewer than five samples: a figure needs that many.
double median(Samples samples);

/// The value below which `share` of the samples lie.
double percentile(Samples samples, double share);

/// Ours against a reference of the same run, by their medians. Without a goal the row is for orientation.
/// @param atMost the largest good ratio, @param atLeast the smallest one; one of them at most.
struct Goal {
    std::optional<double> atMost;
    std::optional<double> atLeast;
};
void compare(const std::string& figure, const Samples& ours, const Samples& reference,
             const std::string& unit, const Goal& goal);

/// Ours against a fixed limit, which it may reach. Medians; a single sample stands for what is no measurement
/// but a count.
void limit(const std::string& figure, double ours, const std::string& unit, double atMost);

/// Ours alone, for orientation.
void show(const std::string& figure, const Samples& ours, const std::string& unit);

}  // namespace figures

#endif
