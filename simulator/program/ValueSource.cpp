#include "ValueSource.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <random>

namespace ZolPlatform {

using Poco::Dynamic::Var;
using std::chrono::milliseconds;

namespace {

double numberOr(const Located& description, const std::string& name, double otherwise) {
    const Located* member = description.find(name);
    return member ? member->number() : otherwise;
}

milliseconds every(const Located& description) {
    return milliseconds(description.at("everyMs").milliseconds(1));
}

/// Without the dust of binary fractions: 21.4, not 21.400000000000002.
Var rounded(double number) {
    constexpr double PLACES = 1000;
    const double result = std::round(number * PLACES) / PLACES;
    if (result == std::floor(result)) return Var(static_cast<Poco::Int64>(result));
    return Var(result);
}

/// {"from": 0, "step": 1, "to": 240, "everyMs": 1000}: begins again behind `to`, if that is there.
class Counter : public ValueSource {
public:
    explicit Counter(const Located& description)
        : _from(numberOr(description, "from", 0)),
          _step(numberOr(description, "step", 1)),
          _to(numberOr(description, "to", std::copysign(std::numeric_limits<double>::infinity(), _step))),
          _every(every(description)),
          _value(_from) {
        description.allowOnly({"from", "step", "to", "everyMs"});
    }

    Var first() const override { return rounded(_from); }
    std::optional<Step_t> next() override {
        _value += _step;
        if (_step > 0 ? _value > _to : _value < _to) _value = _from;
        return Step_t{_every, rounded(_value)};
    }

private:
    const double _from, _step, _to;
    const milliseconds _every;
    double _value;
};

/// {"from": 21, "step": 0.5, "min": 16, "max": 28, "everyMs": 1000}: up or down by at most `step`. The same
/// walk in every run.
class Walk : public ValueSource {
public:
    explicit Walk(const Located& description)
        : _from(description.at("from").number()),
          _step(std::abs(description.at("step").number())),
          _min(numberOr(description, "min", -std::numeric_limits<double>::infinity())),
          _max(numberOr(description, "max", std::numeric_limits<double>::infinity())),
          _every(every(description)),
          _value(_from) {
        description.allowOnly({"from", "step", "min", "max", "everyMs"});
        if (_from < _min || _from > _max) description.at("from").fail("must lie between min and max");
    }

    Var first() const override { return rounded(_from); }
    std::optional<Step_t> next() override {
        const double share = static_cast<double>(_random()) / static_cast<double>(std::minstd_rand::max());
        _value = std::clamp(_value + (2 * share - 1) * _step, _min, _max);
        return Step_t{_every, rounded(_value)};
    }

private:
    const double _from, _step, _min, _max;
    const milliseconds _every;
    double _value;
    std::minstd_rand _random;
};

/// {"steps": [{"atMs": 0, "value": "stopped"}, {"atMs": 1500, "value": "playing"}], "repeatMs": 3000}:
/// recorded values at their times. Plays again after `repeatMs`, if that is there.
class Sequence : public ValueSource {
public:
    explicit Sequence(const Located& description) {
        description.allowOnly({"steps", "repeatMs"});
        const auto& steps = description.at("steps");
        for (const auto& step : steps.items()) add(step);
        if (_steps.empty()) steps.fail("must have a first step");
        if (const Located* repeat = description.find("repeatMs"))
            _repeat = milliseconds(repeat->milliseconds(_steps.back().at.count() + 1));
    }

    Var first() const override { return _steps.front().value; }
    std::optional<Step_t> next() override {
        const milliseconds before = _steps[_present].at;
        if (++_present < _steps.size()) return Step_t{_steps[_present].at - before, _steps[_present].value};
        _present = _repeat ? 0 : _steps.size() - 1;
        if (!_repeat) return std::nullopt;
        return Step_t{*_repeat - before, first()};
    }

private:
    struct Recorded_t {
        milliseconds at;
        Var value;
    };

    void add(const Located& step) {
        step.allowOnly({"atMs", "value"});
        const auto& at = step.at("atMs");
        const milliseconds time(at.milliseconds(0));
        if (_steps.empty() && time.count() != 0) at.fail("must be 0 in the first step");
        if (!_steps.empty() && time <= _steps.back().at) at.fail("must come after the step before");
        _steps.push_back({time, step.at("value").value()});
    }

    std::vector<Recorded_t> _steps;
    std::optional<milliseconds> _repeat;
    std::size_t _present = 0;
};

}  // namespace

bool ValueSource::isDescribedBy(const Located& value) {
    if (!value.isObject() || value.members().size() != 1) return false;
    return value.members().front().first.compare(0, 1, "$") == 0;
}

std::unique_ptr<ValueSource> ValueSource::make(const Located& description) {
    const auto& [kind, parameters] = description.members().front();
    if (kind == "$counter") return std::make_unique<Counter>(parameters);
    if (kind == "$walk") return std::make_unique<Walk>(parameters);
    if (kind == "$sequence") return std::make_unique<Sequence>(parameters);
    parameters.fail("is none of $counter, $walk, $sequence");
}

}  // namespace ZolPlatform
