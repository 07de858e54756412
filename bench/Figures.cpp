#include "Figures.h"

#include <algorithm>
#include <cmath>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <stdexcept>

namespace figures {

namespace {

constexpr std::size_t FEWEST_SAMPLES = 5;

std::string text(double value, const std::string& unit) {
    std::ostringstream out;
    out << std::fixed << std::setprecision(value >= 1000 ? 0 : value >= 100 ? 1 : 2) << value << ' ' << unit;
    return out.str();
}

std::string goalText(const Goal& goal) {
    if (goal.atMost) return "<= " + text(*goal.atMost, "");
    if (goal.atLeast) return ">= " + text(*goal.atLeast, "");
    return "-";
}

std::string verdict(const Goal& goal, double ratio) {
    if (!goal.atMost && !goal.atLeast) return "-";
    const bool met = (!goal.atMost || ratio <= *goal.atMost) && (!goal.atLeast || ratio >= *goal.atLeast);
    return met ? "met" : "MISSED";
}

void row(const std::string& figure, const std::string& ours, const std::string& reference,
         const std::string& ratio, const std::string& goal, const std::string& verdictText) {
    std::cout << figure << '\t' << ours << '\t' << reference << '\t' << ratio << '\t' << goal << '\t'
              << verdictText << std::endl;
}

}  // namespace

double percentile(Samples samples, double share) {
    if (samples.size() < FEWEST_SAMPLES) throw std::logic_error("too few samples");
    std::sort(samples.begin(), samples.end());
    const double position = share * static_cast<double>(samples.size() - 1);
    return samples[static_cast<std::size_t>(std::lround(position))];
}

double median(Samples samples) {
    return percentile(std::move(samples), 0.5);
}

void compare(const std::string& figure, const Samples& ours, const Samples& reference,
             const std::string& unit, const Goal& goal) {
    const double own = median(ours);
    const double other = median(reference);
    row(figure, text(own, unit), text(other, unit), text(own / other, ""), goalText(goal),
        verdict(goal, own / other));
}

void limit(const std::string& figure, double ours, const std::string& unit, double atMost) {
    row(figure, text(ours, unit), "-", "-", "<= " + text(atMost, unit),
        verdict({atMost, std::nullopt}, ours));
}

void show(const std::string& figure, const Samples& ours, const std::string& unit) {
    row(figure, text(median(ours), unit), "-", "-", "-", "-");
}

}  // namespace figures
