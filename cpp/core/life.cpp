#include "core/life.hpp"

#include "core/parallel.hpp"

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <numeric>
#include <unordered_map>

namespace norvane::core {

namespace {

constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();

// Survival over the fraction f of a year with death probability q, given
// log(1 - q) for the constant force.
double fraction_survival(double q, double log_p, double f, FractionalAge rule) {
    if (f <= 0.0) return 1.0;
    switch (rule) {
        case FractionalAge::ConstantForce:
            return std::exp(f * log_p);
        case FractionalAge::Balducci:
            return (1.0 - q) / (1.0 - (1.0 - f) * q);
        default:
            return 1.0 - f * q;
    }
}

// Gauss-Legendre nodes and weights on [-1, 1], by Newton's method on the
// Legendre polynomial.
struct GaussLegendre {
    static constexpr int kNodes = 12;
    std::array<double, kNodes> x{}, w{};

    GaussLegendre() {
        const double pi = std::acos(-1.0);
        for (int i = 0; i < kNodes; ++i) {
            double z = std::cos(pi * (i + 0.75) / (kNodes + 0.5)), derivative = 1.0;
            for (int iteration = 0; iteration < 100; ++iteration) {
                double p0 = 1.0, p1 = 0.0;
                for (int k = 1; k <= kNodes; ++k) {
                    const double p2 = p1;
                    p1 = p0;
                    p0 = ((2.0 * k - 1.0) * z * p1 - (k - 1.0) * p2) / k;
                }
                derivative = kNodes * (z * p0 - p1) / (z * z - 1.0);
                const double step = p0 / derivative;
                z -= step;
                if (std::abs(step) < 1e-16) break;
            }
            x[i] = z;
            w[i] = 2.0 / ((1.0 - z * z) * derivative * derivative);
        }
    }
};

const GaussLegendre& gauss_legendre() {
    static const GaussLegendre rule;
    return rule;
}

}  // namespace

std::optional<FractionalAge> fractional_age_named(std::string_view name) {
    if (name == "udd") return FractionalAge::Uniform;
    if (name == "constant_force") return FractionalAge::ConstantForce;
    if (name == "balducci") return FractionalAge::Balducci;
    return std::nullopt;
}

// ---- survival ---------------------------------------------------------------------

namespace {
std::atomic<std::uint64_t> next_path_id{1};
}  // namespace

SurvivalPath::SurvivalPath(std::vector<double> q)
    : q_(std::move(q)), l_(q_.size() + 1), log_p_(q_.size()), id_(next_path_id.fetch_add(1)) {
    l_[0] = 1.0;
    for (std::size_t j = 0; j < q_.size(); ++j) {
        l_[j + 1] = l_[j] * (1.0 - q_[j]);
        log_p_[j] = std::log1p(-q_[j]);
    }
}

double SurvivalPath::to(double u, FractionalAge rule) const {
    const double whole = std::floor(u);
    if (!(whole < years())) return l_.back();
    const auto j = static_cast<std::size_t>(whole);
    return l_[j] * fraction_survival(q_[j], log_p_[j], u - whole, rule);
}

MortalityTable::MortalityTable(int first_age, std::vector<double> ultimate, int select_first, std::size_t select_period,
                               std::vector<double> select)
    : first_age_(first_age),
      select_first_(select_first),
      period_(select_period),
      ultimate_(std::move(ultimate)),
      select_(std::move(select)) {}

bool MortalityTable::has_select_row(int age) const {
    return period_ > 0 && age >= select_first_ &&
           static_cast<std::size_t>(age - select_first_) < select_.size() / period_;
}

int MortalityTable::path_start(int select_age) const { return has_select_row(select_age) ? select_age : first_age_; }

const SurvivalPath& MortalityTable::path(int select_age) {
    const std::lock_guard<std::mutex> lock(paths_mutex_);
    if (!has_select_row(select_age)) {
        if (!ultimate_path_) ultimate_path_.emplace(ultimate_);
        return *ultimate_path_;
    }
    auto found = select_paths_.find(select_age);
    if (found != select_paths_.end()) return found->second;
    // The select row, then the ultimate rates from the age it leads to.
    const auto row = select_.begin() + static_cast<std::ptrdiff_t>((select_age - select_first_) * period_);
    std::vector<double> q(row, row + static_cast<std::ptrdiff_t>(period_));
    const std::size_t joins =
        static_cast<std::size_t>(std::max(0, select_age + static_cast<int>(period_) - first_age_));
    if (joins < ultimate_.size())
        q.insert(q.end(), ultimate_.begin() + static_cast<std::ptrdiff_t>(joins), ultimate_.end());
    return select_paths_.emplace(select_age, SurvivalPath(std::move(q))).first->second;
}

std::optional<LifeOnPath> life_on_path(const SurvivalPath& path, double start, FractionalAge rule) {
    if (!(start >= 0.0)) return std::nullopt;
    const double alive = path.to(start, rule);
    if (!(alive > 0.0)) return std::nullopt;
    return LifeOnPath{&path, start, rule, 1.0 / alive};
}

void survival(std::span<const LifeOnPath> lives, std::span<const double> durations, std::span<double> out) {
    for (std::size_t i = 0; i < lives.size(); ++i) out[i] = lives[i].at(durations[i]);
}

LifeAt life_at(MortalityTable& table, double age, double select_age, double ts, FractionalAge rule) {
    if (!std::isfinite(age) || !std::isfinite(ts)) return {LifeAt::NotFinite};
    const double select = select_age_of(age, select_age);
    if (!age_in_range(select)) return {LifeAt::SelectAgeOutOfRange};
    const int at = static_cast<int>(select);
    const auto life = life_aged(table.path(at), table.path_start(at), age, ts, rule);
    if (!life) return {LifeAt::Unreached};
    return {LifeAt::None, *life};
}

TableFault check_table(std::span<const double> ultimate, std::size_t select_period, std::span<const double> select) {
    if (ultimate.empty()) return TableFault::NoAges;
    if (select_period == 0 ? !select.empty() : select.size() % select_period != 0) return TableFault::SelectShape;
    for (double q : ultimate)
        if (!probability(q)) return TableFault::NotProbability;
    for (double q : select)
        if (!probability(q)) return TableFault::NotProbability;
    return TableFault::None;
}

std::optional<Status::Kind> status_named(std::string_view name, std::size_t lives) {
    if (name == "single" && lives == 1) return Status::Single;
    if ((name == "joint" || name == "last_survivor") && lives == 2)
        return name == "joint" ? Status::Joint : Status::LastSurvivor;
    return std::nullopt;
}

double Status::at(double t) const { return combine(kind, lives[0].at(t), kind == Single ? 1.0 : lives[1].at(t)); }

double Status::horizon() const {
    if (kind == Single) return lives[0].horizon();
    return kind == Joint ? std::min(lives[0].horizon(), lives[1].horizon())
                         : std::max(lives[0].horizon(), lives[1].horizon());
}

double Status::next_birthday(double t) const {
    double next = PiecewiseTable::kInfinity;
    for (int i = 0; i < (kind == Single ? 1 : 2); ++i) {
        const double u = lives[i].start + t;
        double birthday = std::floor(u) + 1.0 - lives[i].start;
        if (!(birthday > t)) birthday += 1.0;  // u rounded down onto a birthday
        next = std::min(next, birthday);
    }
    return next;
}

// ---- values -----------------------------------------------------------------------

namespace {

// The status's survival while every life stays in its current year of age:
// each life's l at the start of that year and the year's rates, so that a
// payment costs the fractional-age rule alone.
class StatusYear {
  public:
    explicit StatusYear(const Status& status) : status_(&status) {}
    void refresh(double t) {
        birthday_ = PiecewiseTable::kInfinity;
        for (int i = 0; i < (status_->kind == Status::Single ? 1 : 2); ++i) {
            const LifeOnPath& life = status_->lives[i];
            Year& year = years_[i];
            const double whole = std::floor(life.start + t);
            year.rule = life.rule;
            year.start = life.start;
            year.whole = whole;
            if (!(whole < life.path->years())) {
                year.base = 0.0;  // past the end of the table
                continue;
            }
            const auto j = static_cast<std::size_t>(whole);
            year.base = life.norm * life.path->l(j);
            year.q = life.path->q(j);
            year.log_p = life.path->log_p(j);
            birthday_ = std::min(birthday_, whole + 1.0 - life.start);
        }
    }
    double birthday() const { return birthday_; }
    double at(double t) const {
        const Status::Kind kind = status_->kind;
        return Status::combine(kind, years_[0].at(t), kind == Status::Single ? 1.0 : years_[1].at(t));
    }

  private:
    struct Year {
        FractionalAge rule = FractionalAge::Uniform;
        double start = 0.0, whole = 0.0, base = 0.0, q = 0.0, log_p = 0.0;
        double at(double t) const {
            if (t <= 0.0) return 1.0;  // alive at the valuation time
            return base == 0.0 ? 0.0 : base * fraction_survival(q, log_p, (start + t) - whole, rule);
        }
    };
    const Status* status_;
    double birthday_ = -PiecewiseTable::kInfinity;  // refreshed at the first payment
    Year years_[2];
};

// One life under uniform deaths, the common case of a book: survival is
// a - b t inside a year of age.
class UniformYear {
  public:
    explicit UniformYear(const LifeOnPath& life) : life_(&life) {}
    void refresh(double t) {
        const double whole = std::floor(life_->start + t);
        if (!(whole < life_->path->years())) {
            a_ = b_ = 0.0;
            birthday_ = PiecewiseTable::kInfinity;
            return;
        }
        const auto j = static_cast<std::size_t>(whole);
        const double base = life_->norm * life_->path->l(j), q = life_->path->q(j);
        a_ = base * (1.0 - (life_->start - whole) * q);
        b_ = base * q;
        birthday_ = whole + 1.0 - life_->start;
    }
    double birthday() const { return birthday_; }
    double at(double t) const { return t <= 0.0 ? 1.0 : a_ - b_ * t; }

  private:
    const LifeOnPath* life_;
    double a_ = 0.0, b_ = 0.0, birthday_ = -PiecewiseTable::kInfinity;
};

// The sums of life_schedule_sums with survival from `ages`.
template <typename Ages>
void schedule_sums(const PiecewiseTable& curve, const Schedule& s, double horizon, Ages& ages,
                   std::span<const std::size_t> counts, std::span<double> out, std::span<const double> ratios) {
    const double step = 1.0 / static_cast<double>(s.m);
    const std::size_t end = s.first + (counts.empty() ? 0 : counts.back());
    const bool level = s.growth.kind == Growth::Level;
    double total = 0.0, v = 0.0, ratio = 0.0, amount = s.amount(s.first);
    double segment_end = -PiecewiseTable::kInfinity;
    std::size_t next_year = s.first, next_out = 0, j = curve.segment_of(s.time(s.first));
    // Discount factors step by the segment's ratio per payment, taken afresh
    // at each segment (and growth year); survival is refreshed at birthdays.
    std::size_t k = s.first;
    for (; next_out < counts.size(); out[next_out++] = total) {
        const std::size_t stop = std::min(end, s.first + counts[next_out]);
        for (; k < stop; ++k) {
            const double t = s.time(k);
            if (!(t < horizon)) {
                k = end;  // nobody is left: the remaining sums equal this one
                break;
            }
            if (t > segment_end || (k == next_year && !level)) {
                if (t > segment_end) {
                    while (t > curve.segment_end(j)) ++j;  // payments only move forward
                    segment_end = curve.segment_end(j);
                    ratio = ratios.empty() ? std::exp(-curve.log_base(j) * step) : ratios[j];
                }
                if (k >= next_year) {
                    amount = s.amount(k);
                    next_year = (k / s.m + 1) * s.m;
                }
                v = curve.discount(t);
            }
            if (t >= ages.birthday()) ages.refresh(t);
            total += weighted(ages.at(t), amount * v);
            v *= ratio;
        }
    }
}

}  // namespace

std::vector<double> period_ratios(const PiecewiseTable& curve, std::size_t m) {
    std::vector<double> ratios(curve.segment_count());
    const double step = 1.0 / static_cast<double>(m);
    for (std::size_t j = 0; j < ratios.size(); ++j) ratios[j] = std::exp(-curve.log_base(j) * step);
    return ratios;
}

void life_schedule_sums(const PiecewiseTable& curve, const Schedule& s, const Status& status,
                        std::span<const std::size_t> counts, std::span<double> out, std::span<const double> ratios) {
    if (status.kind == Status::Single && status.lives[0].rule == FractionalAge::Uniform) {
        UniformYear ages(status.lives[0]);
        schedule_sums(curve, s, status.horizon(), ages, counts, out, ratios);
    } else {
        StatusYear ages(status);
        schedule_sums(curve, s, status.horizon(), ages, counts, out, ratios);
    }
}

double life_schedule_value(const PiecewiseTable& curve, const Schedule& s, const Status& status,
                           std::span<const double> ratios) {
    double regular = 0.0;
    life_schedule_sums(curve, s, status, {&s.count, 1}, {&regular, 1}, ratios);
    return regular + life_partial_value(curve, s, status);
}

double life_partial_value(const PiecewiseTable& curve, const Schedule& s, const Status& status) {
    if (!s.has_partial || !(s.partial_time < status.horizon())) return 0.0;
    return weighted(status.at(s.partial_time), s.partial_amount() * curve.discount(s.partial_time));
}

namespace {

// The terms v(k/m) x survival(k/m) of a life grid, k = 0 .. points - 1: the
// discount factor steps by the segment's ratio from an exact factor at each
// segment's first point, survival is refreshed at birthdays.
template <typename Ages>
void build_grid(const PiecewiseTable& curve, std::size_t m, Ages& ages, std::size_t points, PrefixSums& sums) {
    const double step = 1.0 / static_cast<double>(m);
    double segment_end = -PiecewiseTable::kInfinity, v = 0.0, ratio = 0.0;
    std::size_t j = 0;
    sums.build(points, [&](std::size_t k) {
        const double t = static_cast<double>(k) * step;
        if (t > segment_end) {
            while (t > curve.segment_end(j)) ++j;  // points only move forward
            segment_end = curve.segment_end(j);
            ratio = std::exp(-curve.log_base(j) * step);
            v = curve.discount(t);
        }
        if (t >= ages.birthday()) ages.refresh(t);
        const double term = weighted(ages.at(t), v);
        v *= ratio;
        return term;
    });
}

}  // namespace

LifeGrid::LifeGrid(const PiecewiseTable& curve, const Status& status, std::size_t m, std::size_t size) {
    // Beyond the horizon every term is 0: the sums stop growing there.
    const double alive = std::ceil(status.horizon() * static_cast<double>(m)) + 1.0;
    const std::size_t points = alive < static_cast<double>(size) ? static_cast<std::size_t>(alive) : size;
    if (status.lives[0].rule == FractionalAge::Uniform) {
        UniformYear ages(status.lives[0]);
        build_grid(curve, m, ages, points, sums_);
    } else {
        StatusYear ages(status);
        build_grid(curve, m, ages, points, sums_);
    }
}

std::optional<std::size_t> LifeGrid::first_point(const Schedule& s, const Status& status) {
    if (status.kind != Status::Single || s.growth.kind != Growth::Level) return std::nullopt;
    const double point = s.start * static_cast<double>(s.m) + static_cast<double>(s.first + s.timing);
    if (!(point == std::floor(point) && point < 0x1p52)) return std::nullopt;
    return static_cast<std::size_t>(point);
}

double LifeGrid::value(const PiecewiseTable& curve, const Schedule& s, const Status& status, std::size_t first) const {
    const std::size_t top = sums_.size();
    const double regular = sums_.between(std::min(first, top), std::min(first + s.count, top));
    return regular / static_cast<double>(s.m) + life_partial_value(curve, s, status);
}

namespace {

// Weights for build_grid that give the curve's own terms v and t v.
struct NoSurvival {
    double birthday() const { return PiecewiseTable::kInfinity; }
    void refresh(double) {}
    double at(double) const { return 1.0; }
};
struct Elapsed : NoSurvival {
    double at(double t) const { return t; }
};

}  // namespace

CurveSums::CurveSums(const PiecewiseTable& curve, std::size_t m, std::size_t size) : m_(static_cast<double>(m)) {
    NoSurvival discount;
    Elapsed weighted_by_time;
    build_grid(curve, m, discount, size, v_);
    build_grid(curve, m, weighted_by_time, size, tv_);
}

bool CurveSums::applies(const Status& status) {
    const LifeOnPath& life = status.lives[0];
    return status.kind == Status::Single && life.rule == FractionalAge::Uniform && life.start != std::floor(life.start);
}

double CurveSums::value(const PiecewiseTable& curve, const Schedule& s, const Status& status, std::size_t first) const {
    const LifeOnPath& life = status.lives[0];
    const SurvivalPath& path = *life.path;
    const std::size_t end = std::min(first + s.count, v_.size());
    // The year of age of the first payment and the grid point of the birthday
    // that ends it; later birthdays are m points apart.
    double whole = std::floor(life.start + static_cast<double>(first) / m_);
    double birthday = std::max(std::ceil((whole + 1.0 - life.start) * m_), 0.0);
    const auto step = static_cast<std::size_t>(m_);
    double total = 0.0;
    for (std::size_t k = first; k < end && whole < path.years(); whole += 1.0) {
        const auto j = static_cast<std::size_t>(whole);
        const std::size_t next = std::clamp(static_cast<std::size_t>(birthday), k + 1, end);
        // Survival over the year is a - b t.
        const double b = life.norm * path.l(j) * path.q(j), a = life.norm * path.l(j) - (life.start - whole) * b;
        total += a * v_.between(k, next) - b * tv_.between(k, next);
        k = next;
        birthday += static_cast<double>(step);
    }
    return total / m_ + life_partial_value(curve, s, status);
}

double life_discrete_value(const PiecewiseTable& curve, const Schedule& s, const Status& status, GridCache* cache) {
    const auto first = LifeGrid::first_point(s, status);
    if (!first) return life_schedule_value(curve, s, status);
    // No further than survival lasts: a long term or deferment asks for no more.
    const double alive = std::ceil(status.horizon() * static_cast<double>(s.m)) + 1.0;
    const std::size_t size = std::min(*first + s.count, static_cast<std::size_t>(std::min(alive, 0x1p52)));
    if (CurveSums::applies(status)) {
        if (cache) return cache->curve_sums(curve, s.m, size)->value(curve, s, status, *first);
        return CurveSums(curve, s.m, size).value(curve, s, status, *first);
    }
    if (cache) return cache->life_grid(curve, status, s.m)->value(curve, s, status, *first);
    return LifeGrid(curve, status, s.m, size).value(curve, s, status, *first);
}

std::shared_ptr<const LifeGrid> GridCache::life_grid(const PiecewiseTable& curve, const Status& status, std::size_t m) {
    const LifeOnPath& life = status.lives[0];
    const auto key = std::make_tuple(life.path->id(), life.start, static_cast<int>(life.rule), m);
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (const auto found = lives_.find(key); found != lives_.end()) return found->second;
    }
    // To the end of survival (the grid stops there), so that every term of the life is served.
    auto grid = std::make_shared<const LifeGrid>(curve, status, m, std::size_t{1} << 40);
    const std::lock_guard<std::mutex> lock(mutex_);
    if (lives_.size() >= kMaxLives) lives_.clear();
    return lives_.try_emplace(key, std::move(grid)).first->second;
}

std::shared_ptr<const CurveSums> GridCache::curve_sums(const PiecewiseTable& curve, std::size_t m, std::size_t size) {
    {
        const std::lock_guard<std::mutex> lock(mutex_);
        if (const auto found = sums_.find(m); found != sums_.end() && found->second->size() >= size)
            return found->second;
    }
    auto sums = std::make_shared<const CurveSums>(curve, m, size);
    const std::lock_guard<std::mutex> lock(mutex_);
    auto& kept = sums_[m];
    if (!kept || kept->size() < sums->size()) kept = std::move(sums);
    return kept;
}

namespace {

// Integral of v(t) survival(t) growth(t) over [a, b], with the integrand also
// multiplied by the force of interest when `by_force`.
double integral(const PiecewiseTable& curve, double a, double b, double origin, const Growth& growth,
                const Status& status, bool by_force) {
    b = std::min(b, status.horizon());
    if (!(b > a)) return 0.0;
    const GaussLegendre& gl = gauss_legendre();
    double total = 0.0, x = a;
    std::size_t year = static_cast<std::size_t>(std::max(0.0, std::floor(a - origin)));
    double year_end = origin + static_cast<double>(year + 1);
    while (x < b) {
        std::size_t j = curve.segment_of(x);
        if (curve.segment_end(j) <= x) ++j;  // x on a boundary: the segment that starts there
        const double delta = curve.log_base(j);
        const double piece_end = std::min({b, year_end, curve.segment_end(j), status.next_birthday(x)});
        const double half = 0.5 * (piece_end - x), middle = x + half;
        double sum = 0.0;
        for (int i = 0; i < GaussLegendre::kNodes; ++i) {
            const double t = middle + half * gl.x[i];
            sum += gl.w[i] * std::exp(-delta * (t - x)) * status.at(t);
        }
        // No survival over the piece adds nothing, even where the discount factor overflows.
        if (sum != 0.0) total += growth.factor(year) * curve.discount(x) * half * sum * (by_force ? delta : 1.0);
        x = piece_end;
        if (x >= year_end) year_end = origin + static_cast<double>(++year + 1);
    }
    return total;
}

double woolhouse_life_value(const PiecewiseTable& curve, const Annuity& annuity, bool continuous,
                            const Status& status) {
    const WoolhouseParts parts = woolhouse_parts(annuity, continuous);
    const double annual = parts.annual(life_schedule_value(curve, parts.due, status),
                                       life_schedule_value(curve, parts.immediate, status), annuity.timing);
    if (!continuous) return annual + life_schedule_value(curve, parts.fraction, status);
    const double start = annuity.d + static_cast<double>(parts.due.count);
    return annual + integral(curve, start, annuity.d + annuity.n, annuity.d, annuity.growth, status, false);
}

// The periods of a schedule, [d + k/m, d + (k+1)/m] with the last one ending
// with the term, that begin before `horizon`: later ones carry no survival, so
// the walk ends where the status does, however long the term.
template <typename Fn>
void for_each_period(const Annuity& annuity, double horizon, Fn fn) {
    Annuity due = annuity, immediate = annuity;
    due.timing = 0;
    immediate.timing = 1;
    const Schedule starts = due.schedule(), ends = immediate.schedule();
    for (std::size_t i = 0; i < starts.size(); ++i) {
        const double start = starts.payment_time(i);
        if (!(start < horizon)) return;
        fn(i, start, ends.payment_time(i));
    }
}

}  // namespace

double life_annuity_value(const PiecewiseTable& curve, const Annuity& annuity, Mode mode, const Status& status,
                          GridCache* cache) {
    switch (mode) {
        case Mode::DiscretePrecision:
            return life_discrete_value(curve, annuity.schedule(), status, cache);
        case Mode::DiscreteSimplified:
            return woolhouse_life_value(curve, annuity, false, status);
        case Mode::ContinuousPrecision:
            return integral(curve, annuity.d, annuity.d + annuity.n, annuity.d, annuity.growth, status, false);
        case Mode::ContinuousSimplified:
            return woolhouse_life_value(curve, annuity, true, status);
    }
    return kNaN;
}

double life_amounts_value(const PiecewiseTable& curve, const Annuity& annuity, std::span<const double> amounts,
                          Mode mode, const Status& status) {
    double total = 0.0;
    if (mode == Mode::DiscretePrecision || mode == Mode::DiscreteSimplified) {
        std::vector<double> times, unit;
        schedule_payments(annuity.schedule(), times, unit);
        for (std::size_t i = 0; i < times.size(); ++i)
            total += weighted(status.at(times[i]), amounts[i] * curve.discount(times[i]));
        return total;
    }
    const Growth level;
    for_each_period(annuity, status.horizon(), [&](std::size_t i, double start, double end) {
        if (end > start) total += amounts[i] / (end - start) * integral(curve, start, end, start, level, status, false);
    });
    return total;
}

double life_insurance_value(const PiecewiseTable& curve, const Annuity& periods, Mode mode, const Status& status) {
    const double a = periods.d, b = periods.d + periods.n;
    if (mode == Mode::ContinuousPrecision || mode == Mode::ContinuousSimplified) {
        // By parts: the integral of v dF equals v(a) S(a) - v(b) S(b) minus the
        // integral of S dv, and dv = -delta v dt.
        const double end = std::min(b, status.horizon());
        return weighted(status.at(a), curve.discount(a)) - weighted(status.at(end), curve.discount(end)) -
               integral(curve, a, b, a, Growth{}, status, true);
    }
    double total = 0.0;
    for_each_period(periods, status.horizon(), [&](std::size_t, double start, double end) {
        total += weighted(status.at(start) - status.at(end), curve.discount(end));
    });
    return total;
}

double pure_endowment_value(const PiecewiseTable& curve, double t, const Status& status) {
    return weighted(status.at(t), curve.discount(t));
}

double life_term(double n, double d, double ts, double horizon, std::size_t m) {
    if (!std::isinf(n)) return n;
    // For life: whole periods from the first payment until survival ends, so
    // the last period begun alive pays in full.
    const TermAtValuation at = term_at_valuation(0.0, d, ts);
    const double periods = std::ceil((horizon - at.deferment) * static_cast<double>(m));
    return periods > 0.0 ? at.elapsed + periods / static_cast<double>(m) : 0.0;
}

std::optional<Annuity> life_policy_annuity(double n, double d, double ts, double horizon, const PolicyTerms& terms) {
    const double term = life_term(n, d, ts, horizon, terms.m);
    if (!(term > 0.0)) return std::nullopt;
    return policy_annuity(term, d, ts, terms);
}

std::optional<LifeBenefit> life_benefit_named(std::string_view name) {
    if (name == "annuity") return LifeBenefit::Annuity;
    if (name == "insurance") return LifeBenefit::Insurance;
    if (name == "endowment_insurance") return LifeBenefit::EndowmentInsurance;
    if (name == "pure_endowment") return LifeBenefit::PureEndowment;
    return std::nullopt;
}

LifeValue life_benefit_value(LifeBenefit benefit, const PiecewiseTable& curve, const Status& status, double ts,
                             double d, double n, PolicyTerms terms, std::optional<std::span<const double>> amounts,
                             GridCache* cache) {
    if (benefit == LifeBenefit::PureEndowment) {
        const double t = d + n - ts;
        return {LifeValue::None, t < 0.0 ? 0.0 : pure_endowment_value(curve, t, status)};
    }
    const bool insurance = benefit != LifeBenefit::Annuity;
    if (insurance) terms.timing = 1;
    const double horizon = status.horizon();
    const double term = life_term(n, d, ts, horizon, terms.m);
    if (!countable(term > 0.0 ? term : 0.0, terms.m)) return {LifeValue::Uncountable};
    const auto annuity = life_policy_annuity(n, d, ts, horizon, terms);
    if (!annuity) return {};
    if (insurance) {
        const double death = life_insurance_value(curve, *annuity, terms.mode, status);
        if (benefit == LifeBenefit::Insurance || std::isinf(n)) return {LifeValue::None, death};
        return {LifeValue::None, death + pure_endowment_value(curve, annuity->d + annuity->n, status)};
    }
    if (!amounts) return {LifeValue::None, life_annuity_value(curve, *annuity, terms.mode, status, cache)};
    const std::size_t full = payment_count(term, terms.m, terms.tolerance_eps).size;
    if (amounts->size() != full) return {LifeValue::AmountCount, 0.0, full};
    return {LifeValue::None,
            life_amounts_value(curve, *annuity, amounts->subspan(full - annuity->payments_size), terms.mode, status)};
}

// ---- portfolios ----------------------------------------------------------------

namespace {

// Distinct keys numbered in order of first appearance: open addressing in
// one array that doubles when half full, so a book of a million policies
// costs no allocation per policy and few distinct keys stay in cache.
template <std::size_t N>
class KeyIndex {
  public:
    using Key = std::array<std::uint64_t, N>;
    // Room for `expected` keys is reserved (address space only until used).
    explicit KeyIndex(std::size_t expected) : slots_(1024, kEmpty) { keys_.reserve(expected); }
    // The number of `key`, and whether it is new.
    std::pair<std::uint32_t, bool> insert(const Key& key) {
        std::size_t slot = find(key);
        if (slots_[slot] != kEmpty) return {slots_[slot], false};
        if (2 * (keys_.size() + 1) > slots_.size()) {
            grow();
            slot = find(key);
        }
        slots_[slot] = static_cast<std::uint32_t>(keys_.size());
        keys_.push_back(key);
        return {slots_[slot], true};
    }

  private:
    static constexpr std::uint32_t kEmpty = 0xFFFFFFFFu;
    static std::size_t hash(const Key& key) {
        std::uint64_t h = 0x9E3779B97F4A7C15ull;
        for (std::uint64_t part : key) h = (h ^ part) * 0xBF58476D1CE4E5B9ull, h ^= h >> 31;
        return static_cast<std::size_t>(h);
    }
    // The slot holding `key`, or the empty slot where it belongs.
    std::size_t find(const Key& key) const {
        const std::size_t mask = slots_.size() - 1;
        std::size_t slot = hash(key) & mask;
        while (slots_[slot] != kEmpty && keys_[slots_[slot]] != key) slot = (slot + 1) & mask;
        return slot;
    }
    void grow() {
        slots_.assign(2 * slots_.size(), kEmpty);
        const std::size_t mask = slots_.size() - 1;
        for (std::size_t i = 0; i < keys_.size(); ++i) {
            std::size_t slot = hash(keys_[i]) & mask;
            while (slots_[slot] != kEmpty) slot = (slot + 1) & mask;
            slots_[slot] = static_cast<std::uint32_t>(i);
        }
    }
    std::vector<std::uint32_t> slots_;
    std::vector<Key> keys_;
};

// Bit pattern with -0.0 folded into 0.0, so equal numbers share a key.
std::uint64_t bits(double x) { return std::bit_cast<std::uint64_t>(x == 0.0 ? 0.0 : x); }

// The policies of one life (table, age, select age) at one valuation time,
// deferment and frequency: their schedules differ only in length. In the
// discrete precision mode one pass over the longest gives every distinct
// length's sum; otherwise each distinct term is valued once. Unit values go
// to `unit` by policy.
void value_group(const PiecewiseTable& curve, std::span<const double> ratios, const CurveSums* pieces,
                 const SurvivalPath& path, int path_start, FractionalAge rule, const LifePolicies& p,
                 std::span<std::uint32_t> members, const PolicyTerms& terms, std::span<double> unit) {
    const std::uint32_t first = members[0];
    const auto life = life_aged(path, path_start, p.age[first], p.ts[first], rule);
    if (!life) {
        for (std::uint32_t i : members) unit[i] = kNaN;
        return;
    }
    const LifeOnPath lives[] = {*life};
    const Status status = Status::of(Status::Single, lives);
    PolicyTerms policy = terms;
    policy.m = static_cast<std::size_t>(p.m[first]);
    const double ts = p.ts[first], d = p.d[first];
    const auto annuity_of = [&](double n) { return life_policy_annuity(n, d, ts, status.horizon(), policy); };
    const auto round = [&](double value) { return round_like_numpy(value, terms.decimals); };
    // In the discrete precision mode a schedule on the grid is a difference of
    // the life's sums and any other is summed with the book's ratios (the same
    // numbers a single call computes); other modes as a single call values them.
    // (book_sums gave the group the curve's sums; a life's own grid is built
    // here, for the group's longest schedule, and dropped with the group).
    const bool by_year = CurveSums::applies(status);
    const auto on_grid = [&](const Schedule& s) { return LifeGrid::first_point(s, status).has_value(); };
    std::optional<LifeGrid> grid;
    const auto prepare_grid = [&](std::span<const std::optional<Annuity>> annuities) {
        if (terms.mode != Mode::DiscretePrecision || by_year) return;
        std::optional<std::size_t> size;
        for (const auto& annuity : annuities) {
            if (!annuity) continue;
            const Schedule s = annuity->schedule();
            if (const auto at = LifeGrid::first_point(s, status)) size = std::max(size.value_or(0), *at + s.count);
        }
        if (size) grid.emplace(curve, status, policy.m, *size);
    };
    const auto value_of = [&](const Annuity& annuity) {
        if (terms.mode != Mode::DiscretePrecision) return life_annuity_value(curve, annuity, terms.mode, status);
        const Schedule s = annuity.schedule();
        const auto first = LifeGrid::first_point(s, status);
        if (!first) return life_schedule_value(curve, s, status, ratios);
        return by_year ? pieces->value(curve, s, status, *first) : grid->value(curve, s, status, *first);
    };
    if (members.size() == 1) {
        const std::optional<Annuity> annuity = annuity_of(p.n[first]);
        prepare_grid({&annuity, 1});
        unit[first] = annuity ? round(value_of(*annuity)) : 0.0;
        return;
    }
    // Runs of equal terms: each distinct term is one annuity.
    std::sort(members.begin(), members.end(), [&](std::uint32_t a, std::uint32_t b) { return p.n[a] < p.n[b]; });
    std::vector<std::size_t> run_start;
    std::vector<std::optional<Annuity>> annuities;
    for (std::size_t k = 0; k < members.size(); ++k) {
        if (k > 0 && p.n[members[k]] == p.n[members[k - 1]]) continue;
        run_start.push_back(k);
        annuities.push_back(annuity_of(p.n[members[k]]));
    }
    run_start.push_back(members.size());
    prepare_grid(annuities);
    std::vector<double> values(annuities.size(), 0.0);
    // One deferment: the group's schedules are all on the grid or none is.
    const auto some = std::find_if(annuities.begin(), annuities.end(), [](const auto& a) { return a.has_value(); });
    if (terms.mode != Mode::DiscretePrecision || (some != annuities.end() && on_grid((*some)->schedule()))) {
        for (std::size_t r = 0; r < annuities.size(); ++r)
            if (annuities[r]) values[r] = round(value_of(*annuities[r]));
    } else {
        std::vector<std::size_t> counts;
        std::optional<Schedule> longest;
        for (const auto& annuity : annuities) {
            if (!annuity) continue;
            const Schedule s = annuity->schedule();
            counts.push_back(s.count);
            if (!longest || s.count > longest->count) longest = s;
        }
        std::sort(counts.begin(), counts.end());
        counts.erase(std::unique(counts.begin(), counts.end()), counts.end());
        std::vector<double> sums(counts.size());
        if (longest) life_schedule_sums(curve, *longest, status, counts, sums, ratios);
        for (std::size_t r = 0; r < annuities.size(); ++r) {
            if (!annuities[r]) continue;
            const Schedule s = annuities[r]->schedule();
            const auto at = std::lower_bound(counts.begin(), counts.end(), s.count) - counts.begin();
            values[r] = round(sums[static_cast<std::size_t>(at)] + life_partial_value(curve, s, status));
        }
    }
    for (std::size_t r = 0; r < annuities.size(); ++r)
        for (std::size_t k = run_start[r]; k < run_start[r + 1]; ++k) unit[members[k]] = values[r];
}

// The curve's sums of a discrete precision book, one per (curve, frequency)
// that lives between birthdays under uniform deaths are valued on, as far as
// their schedules reach (no further than survival lasts).
struct BookSums {
    std::map<std::pair<std::size_t, std::size_t>, CurveSums> sums;  // by (curve, frequency)
    std::vector<const CurveSums*> of_group;
    const CurveSums* of(std::size_t group) const { return of_group.empty() ? nullptr : of_group[group]; }
};

BookSums book_sums(const LifePolicies& p, std::span<const std::uint32_t> lead, std::span<const std::uint32_t> members,
                   std::span<const std::uint32_t> offsets, const std::vector<PiecewiseTable>& curves,
                   std::span<const std::size_t> group_curve, std::span<const SurvivalPath* const> paths,
                   std::span<const int> starts, std::span<const FractionalAge> rules) {
    const std::size_t group_count = lead.size();
    std::map<std::pair<std::size_t, std::size_t>, double> reach;
    for (std::size_t g = 0; g < group_count; ++g) {
        const std::uint32_t i = lead[g];
        const auto life =
            life_aged(*paths[g], starts[g], p.age[i], p.ts[i], rules[static_cast<std::size_t>(p.table[i])]);
        if (!life || !CurveSums::applies(Status{Status::Single, {*life, *life}})) continue;
        // The schedules end at d + n from inception, d + n - ts from the valuation time.
        double points = 0.0;
        for (std::uint32_t k = offsets[g]; k < offsets[g + 1]; ++k) {
            const std::uint32_t policy = members[k];
            points = std::max(points, (p.d[policy] + p.n[policy] - p.ts[policy]) * p.m[policy] + 2.0);
        }
        const double alive = std::ceil(life->horizon() * p.m[i]) + 1.0;
        double& most = reach[{group_curve[g], static_cast<std::size_t>(p.m[i])}];
        most = std::max(most, std::min(points, alive));
    }
    BookSums out;
    for (const auto& [key, points] : reach)
        out.sums.try_emplace(key, curves[key.first], key.second, static_cast<std::size_t>(points));
    if (out.sums.empty()) return out;
    out.of_group.resize(group_count);
    for (std::size_t g = 0; g < group_count; ++g) {
        const auto found = out.sums.find({group_curve[g], static_cast<std::size_t>(p.m[lead[g]])});
        out.of_group[g] = found == out.sums.end() ? nullptr : &found->second;
    }
    return out;
}

// A book's policies at whole ages of their tables (not selected at another
// age), all valued at one time at one frequency, in the discrete precision
// mode: one grid per (table, age), and each policy whose payments fall on it
// valued from it in O(1). Returns the policies left to the general route.
std::vector<std::uint32_t> value_whole_ages(const CurveArrays& curve, std::span<MortalityTable* const> tables,
                                            std::span<const FractionalAge> rules, const LifePolicies& p,
                                            const PolicyTerms& terms, std::span<double> unit) {
    const std::size_t count = p.age.size();
    const auto everyone = [count] {
        std::vector<std::uint32_t> all(count);
        std::iota(all.begin(), all.end(), 0u);
        return all;
    };
    if (terms.mode != Mode::DiscretePrecision || count == 0) return everyone();
    const double ts = p.ts[0], m = p.m[0];
    for (std::size_t i = 1; i < count; ++i)
        if (!(p.ts[i] == ts && p.m[i] == m)) return everyone();
    // At a valuation time between birthdays a life is valued year by year (CurveSums), not here.
    if (ts != std::floor(ts)) return everyone();
    // One slot per (table, whole age): base[t] + age - first age.
    std::vector<std::size_t> base(tables.size() + 1, 0);
    for (std::size_t t = 0; t < tables.size(); ++t)  // (a missing table has no slots; its policies are refused)
        base[t + 1] =
            base[t] + (tables[t] ? static_cast<std::size_t>(tables[t]->end_age() - tables[t]->first_age()) : 0);
    constexpr std::uint32_t kNone = 0xFFFFFFFFu;
    std::vector<std::uint32_t> slot_of(count, kNone);
    std::vector<double> points(base.back(), 0.0);  // the grid points each slot's schedules reach
    for (std::size_t i = 0; i < count; ++i) {
        const auto t = static_cast<std::size_t>(p.table[i]);
        if (!tables[t]) continue;
        const double age = p.age[i], offset = age - tables[t]->first_age();
        const bool whole = age == std::floor(age) && (std::isnan(p.select_age[i]) || p.select_age[i] == age);
        if (!(whole && offset >= 0.0 && offset < static_cast<double>(base[t + 1] - base[t]))) continue;
        const auto slot = static_cast<std::uint32_t>(base[t] + static_cast<std::size_t>(offset));
        slot_of[i] = slot;
        points[slot] = std::max(points[slot], (p.d[i] + p.n[i] - ts) * m + 2.0);
    }
    // Paths are built before the threads share the tables.
    const PiecewiseTable seen =
        discount_table(is_shift(ts, terms.tolerance_eps) ? shifted(curve, ts, terms.tolerance_eps) : curve);
    std::vector<std::optional<Status>> statuses(base.back());
    for (std::size_t t = 0; t < tables.size(); ++t) {
        for (std::size_t slot = base[t]; slot < base[t + 1]; ++slot) {
            if (points[slot] == 0.0) continue;
            const int age = tables[t]->first_age() + static_cast<int>(slot - base[t]);
            const auto life = life_aged(tables[t]->path(age), tables[t]->path_start(age), age, ts, rules[t]);
            if (life) statuses[slot] = Status{Status::Single, {*life, *life}};
        }
    }
    std::vector<std::optional<LifeGrid>> grids(base.back());
    const auto frequency = static_cast<std::size_t>(m);
    parallel_for(grids.size(), 8, [&](std::size_t begin, std::size_t end) {
        for (std::size_t slot = begin; slot < end; ++slot)
            if (statuses[slot])
                grids[slot].emplace(seen, *statuses[slot], frequency,
                                    static_cast<std::size_t>(std::min(points[slot], 0x1p52)));
    });
    PolicyTerms policy = terms;
    policy.m = frequency;
    std::vector<std::uint8_t> valued(count, 0);
    const double scale = std::pow(10.0, terms.decimals);
    parallel_for(count, 4096, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end; ++i) {
            const std::uint32_t slot = slot_of[i];
            if (slot == kNone || !grids[slot]) continue;
            const Status& status = *statuses[slot];
            const auto annuity = life_policy_annuity(p.n[i], p.d[i], ts, status.horizon(), policy);
            if (!annuity) {
                unit[i] = 0.0;
                valued[i] = 1;
                continue;
            }
            const Schedule s = annuity->schedule();
            const auto first = LifeGrid::first_point(s, status);
            if (!first) continue;
            unit[i] = round_scaled(grids[slot]->value(seen, s, status, *first), scale);
            valued[i] = 1;
        }
    });
    std::vector<std::uint32_t> rest;
    for (std::size_t i = 0; i < count; ++i)
        if (!valued[i]) rest.push_back(static_cast<std::uint32_t>(i));
    return rest;
}

}  // namespace

void life_portfolio_values(const CurveArrays& curve, std::vector<MortalityTable*> tables,
                           std::span<const FractionalAge> rules, const LifePolicies& p, const PolicyTerms& terms,
                           std::span<double> out) {
    const std::vector<std::uint32_t> rest = value_whole_ages(curve, tables, rules, p, terms, out);
    const std::size_t count = rest.size();
    // The other policies grouped by life, valuation time, deferment and
    // frequency (in one flat array, by group), and one discount table per
    // valuation time.
    KeyIndex<6> group_of(count);
    std::vector<std::uint32_t> group_id(count), offsets{0}, lead;
    std::vector<double> select_ages;
    offsets.reserve(count + 1);
    lead.reserve(count);
    select_ages.reserve(count);
    std::unordered_map<std::uint64_t, std::size_t> curve_of;
    std::vector<PiecewiseTable> curves;
    std::vector<std::size_t> group_curve;
    for (std::size_t r = 0; r < count; ++r) {
        const std::uint32_t i = rest[r];
        const double select = select_age_of(p.age[i], p.select_age[i]);
        const auto [group, added] = group_of.insert(
            {bits(p.table[i]), bits(p.age[i]), bits(select), bits(p.ts[i]), bits(p.d[i]), bits(p.m[i])});
        if (added) {
            offsets.push_back(0);
            lead.push_back(i);
            select_ages.push_back(select);
            auto [seen, new_curve] = curve_of.try_emplace(bits(p.ts[i]), curves.size());
            if (new_curve)
                curves.push_back(discount_table(
                    is_shift(p.ts[i], terms.tolerance_eps) ? shifted(curve, p.ts[i], terms.tolerance_eps) : curve));
            group_curve.push_back(seen->second);
        }
        group_id[r] = group;
        ++offsets[group + 1];
    }
    const std::size_t group_count = offsets.size() - 1;
    for (std::size_t g = 0; g < group_count; ++g) offsets[g + 1] += offsets[g];
    std::vector<std::uint32_t> members(count), filled(offsets.begin(), offsets.end() - 1);
    for (std::size_t r = 0; r < count; ++r) members[filled[group_id[r]]++] = rest[r];
    // Survival paths once per (table, select age), before the threads share them.
    std::vector<const SurvivalPath*> paths(group_count);
    std::vector<int> starts(group_count);
    for (std::size_t g = 0; g < group_count; ++g) {
        MortalityTable& table = *tables[static_cast<std::size_t>(p.table[lead[g]])];
        const int select = static_cast<int>(select_ages[g]);
        paths[g] = &table.path(select);
        starts[g] = table.path_start(select);
    }
    // The period ratios of each (curve, frequency), shared by its groups.
    std::map<std::pair<std::size_t, std::size_t>, std::vector<double>> ratios;
    std::vector<const std::vector<double>*> group_ratios(group_count);
    for (std::size_t g = 0; g < group_count; ++g) {
        const auto m = static_cast<std::size_t>(p.m[lead[g]]);
        auto [it, added] = ratios.try_emplace({group_curve[g], m});
        if (added) it->second = period_ratios(curves[group_curve[g]], m);
        group_ratios[g] = &it->second;
    }
    const BookSums sums = terms.mode == Mode::DiscretePrecision
                              ? book_sums(p, lead, members, offsets, curves, group_curve, paths, starts, rules)
                              : BookSums{};
    parallel_for(group_count, 64, [&](std::size_t begin, std::size_t end) {
        for (std::size_t g = begin; g < end; ++g) {
            const std::span<std::uint32_t> group(members.data() + offsets[g], offsets[g + 1] - offsets[g]);
            const auto table = static_cast<std::size_t>(p.table[lead[g]]);
            value_group(curves[group_curve[g]], *group_ratios[g], sums.of(g), *paths[g], starts[g], rules[table], p,
                        group, terms, out);
        }
    });
    if (!p.benefits.empty())
        for (std::size_t i = 0; i < out.size(); ++i) out[i] *= p.benefits[i];
}

bool age_fits(const MortalityTable& table, double age, double select_age, double ts) {
    const double first = table.first_age(), select = select_age_of(age, select_age);
    if (!(age + ts < table.end_age())) return false;  // beyond the last age at ts
    if (!(age >= (table.has_select_row(static_cast<int>(select)) ? select : first))) return false;
    return std::isnan(select_age) || (select_age == std::floor(select_age) && select_age <= age && select_age >= first);
}

namespace {

LifeBookFault::Kind policy_fault(std::span<MortalityTable* const> tables, const LifePolicies& p, std::size_t i) {
    const double t = p.table[i], x = p.age[i], f = p.m[i], s = p.select_age[i], n = p.n[i];
    if (!std::isnan(s) && !age_in_range(s)) return LifeBookFault::SelectAge;
    if (!(t >= 0.0 && t < static_cast<double>(tables.size()) && t == std::floor(t)) ||
        !tables[static_cast<std::size_t>(t)] || !(f >= 1.0 && f <= 365.0 && f == std::floor(f)) || !age_in_range(x) ||
        !finite_nonnegative(p.ts[i]) || !finite_nonnegative(p.d[i]) || !(n >= 0.0) ||
        !countable(std::isinf(n) ? 0.0 : n, static_cast<std::size_t>(f)) ||
        !age_fits(*tables[static_cast<std::size_t>(t)], x, s, p.ts[i]))
        return LifeBookFault::Policy;
    return LifeBookFault::None;
}

}  // namespace

LifeBookFault check_life_policies(std::span<MortalityTable* const> tables, const LifePolicies& p) {
    // Chunks on all cores; the first fault of the book is the least index any chunk found.
    std::atomic<std::size_t> first{p.age.size()};
    parallel_for(p.age.size(), std::size_t{1} << 15, [&](std::size_t begin, std::size_t end) {
        for (std::size_t i = begin; i < end && i < first.load(std::memory_order_relaxed); ++i) {
            if (policy_fault(tables, p, i) == LifeBookFault::None) continue;
            std::size_t seen = first.load();
            while (i < seen && !first.compare_exchange_weak(seen, i)) {
            }
            return;
        }
    });
    const std::size_t i = first.load();
    if (i == p.age.size()) return {};
    return {policy_fault(tables, p, i), i};
}

}  // namespace norvane::core
