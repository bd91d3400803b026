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

// Each regular payment k of `s` from s.first up to `end` while the status
// survives (t < horizon), in time order: fn(t, amount, v(t), survival(t)).
// Discount factors step by the segment's ratio per payment, taken afresh at
// each segment (and growth year); survival is refreshed at birthdays.
template <typename Ages, typename Fn>
void walk_payments(const PiecewiseTable& curve, const Schedule& s, double horizon, Ages& ages, std::size_t end,
                   std::span<const double> ratios, Fn fn) {
    const double step = 1.0 / static_cast<double>(s.m);
    const bool level = s.growth.kind == Growth::Level;
    double v = 0.0, ratio = 0.0, amount = s.amount(s.first);
    double segment_end = -PiecewiseTable::kInfinity;
    std::size_t next_year = s.first, j = curve.segment_of(s.time(s.first));
    for (std::size_t k = s.first; k < end; ++k) {
        const double t = s.time(k);
        if (!(t < horizon)) return;  // nobody is left
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
        fn(t, amount, v, ages.at(t));
        v *= ratio;
    }
}

// Survival 1: a certain annuity's payments walked as a life's.
struct Certain {
    double birthday() const { return PiecewiseTable::kInfinity; }
    void refresh(double) {}
    double at(double) const { return 1.0; }
};

// The sums of life_schedule_sums with survival from `ages`.
template <typename Ages>
void schedule_sums(const PiecewiseTable& curve, const Schedule& s, double horizon, Ages& ages,
                   std::span<const std::size_t> counts, std::span<double> out, std::span<const double> ratios) {
    const std::size_t end = s.first + (counts.empty() ? 0 : counts.back());
    double total = 0.0;
    std::size_t next_out = 0, paid = 0;
    const auto flush = [&] {
        while (next_out < counts.size() && counts[next_out] <= paid) out[next_out++] = total;
    };
    flush();
    walk_payments(curve, s, horizon, ages, end, ratios, [&](double, double amount, double v, double alive) {
        total += weighted(alive, amount * v);
        ++paid;
        flush();
    });
    while (next_out < counts.size()) out[next_out++] = total;  // nobody left: the sums stay
}

}  // namespace

std::vector<double> period_ratios(const PiecewiseTable& curve, std::size_t m) {
    std::vector<double> ratios(curve.segment_count());
    const double step = 1.0 / static_cast<double>(m);
    for (std::size_t j = 0; j < ratios.size(); ++j) ratios[j] = std::exp(-curve.log_base(j) * step);
    return ratios;
}

void life_schedule_payments(const PiecewiseTable& curve, const Schedule& s, const Status* status,
                            PaymentVisitor& visit) {
    const auto each = [&](double t, double amount, double v, double alive) { visit(t, amount, v, alive); };
    const std::size_t end = s.first + s.count;
    if (!status) {
        Certain ages;
        walk_payments(curve, s, PiecewiseTable::kInfinity, ages, end, {}, each);
    } else if (status->kind == Status::Single && status->lives[0].rule == FractionalAge::Uniform) {
        UniformYear ages(status->lives[0]);
        walk_payments(curve, s, status->horizon(), ages, end, {}, each);
    } else {
        StatusYear ages(*status);
        walk_payments(curve, s, status->horizon(), ages, end, {}, each);
    }
    const double horizon = status ? status->horizon() : PiecewiseTable::kInfinity;
    if (s.has_partial && s.partial_time < horizon)
        visit(s.partial_time, s.partial_amount(), curve.discount(s.partial_time),
              status ? status->at(s.partial_time) : 1.0);
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
void build_grid(const PiecewiseTable& curve, std::size_t m, Ages& ages, std::size_t points, PrefixSums& sums,
                const Growth& growth = {}, int timing = 0) {
    const double step = 1.0 / static_cast<double>(m);
    double segment_end = -PiecewiseTable::kInfinity, v = 0.0, ratio = 0.0, grown = 1.0;
    std::size_t j = 0, year = 0;
    sums.build(points, [&](std::size_t k) {
        const double t = static_cast<double>(k) * step;
        if (t > segment_end) {
            while (t > curve.segment_end(j)) ++j;  // points only move forward
            segment_end = curve.segment_end(j);
            ratio = std::exp(-curve.log_base(j) * step);
            v = curve.discount(t);
        }
        if (t >= ages.birthday()) ages.refresh(t);
        double term = weighted(ages.at(t), v);
        // Growing payments: the payment at point k is in year (k - timing) / m of a schedule starting at 0.
        // Its factor is taken once a year (that of year 0 is 1).
        if (growth.kind != Growth::Level && k >= static_cast<std::size_t>(timing)) {
            const std::size_t payment_year = (k - static_cast<std::size_t>(timing)) / m;
            if (payment_year != year) {
                year = payment_year;
                grown = growth.factor(year);
            }
            term *= grown;
        }
        v *= ratio;
        return term;
    });
}

}  // namespace

LifeGrid::LifeGrid(const PiecewiseTable& curve, const Status& status, std::size_t m, std::size_t size,
                   const Growth& growth, int timing) {
    // Beyond the horizon every term is 0: the sums stop growing there.
    const double alive = std::ceil(status.horizon() * static_cast<double>(m)) + 1.0;
    const std::size_t points = alive < static_cast<double>(size) ? static_cast<std::size_t>(alive) : size;
    if (status.lives[0].rule == FractionalAge::Uniform) {
        UniformYear ages(status.lives[0]);
        build_grid(curve, m, ages, points, sums_, growth, timing);
    } else {
        StatusYear ages(status);
        build_grid(curve, m, ages, points, sums_, growth, timing);
    }
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

// The integral of survival_integral for any survival (`at`, with its kinks at `next(x)`),
// the integrand also times t when `timed`.
template <typename At, typename Next>
double gauss_pieces(const PiecewiseTable& curve, double a, double b, double origin, const Growth& growth, At at,
                    Next next, bool by_force, bool timed) {
    if (!(b > a)) return 0.0;
    const GaussLegendre& gl = gauss_legendre();
    double total = 0.0, x = a;
    std::size_t year = static_cast<std::size_t>(std::max(0.0, std::floor(a - origin)));
    double year_end = origin + static_cast<double>(year + 1);
    while (x < b) {
        std::size_t j = curve.segment_of(x);
        if (curve.segment_end(j) <= x) ++j;  // x on a boundary: the segment that starts there
        const double delta = curve.log_base(j);
        const double piece_end = std::min({b, year_end, curve.segment_end(j), next(x)});
        const double half = 0.5 * (piece_end - x), middle = x + half;
        double sum = 0.0;
        for (int i = 0; i < GaussLegendre::kNodes; ++i) {
            const double t = middle + half * gl.x[i];
            sum += gl.w[i] * std::exp(-delta * (t - x)) * at(t) * (timed ? t : 1.0);
        }
        // No survival over the piece adds nothing, even where the discount factor overflows.
        if (sum != 0.0) total += growth.factor(year) * curve.discount(x) * half * sum * (by_force ? delta : 1.0);
        x = piece_end;
        if (x >= year_end) year_end = origin + static_cast<double>(++year + 1);
    }
    return total;
}

}  // namespace

double survival_integral(const PiecewiseTable& curve, double a, double b, double origin, const Growth& growth,
                         const Status& status, bool by_force) {
    return gauss_pieces(
        curve, a, std::min(b, status.horizon()), origin, growth, [&](double t) { return status.at(t); },
        [&](double x) { return status.next_birthday(x); }, by_force, false);
}

double survival_time_integral(const PiecewiseTable& curve, double a, double b, double origin, const Growth& growth,
                              const Status* status, bool by_force) {
    if (!status)
        return gauss_pieces(
            curve, a, b, origin, growth, [](double) { return 1.0; }, [](double) { return PiecewiseTable::kInfinity; },
            by_force, true);
    return gauss_pieces(
        curve, a, std::min(b, status->horizon()), origin, growth, [&](double t) { return status->at(t); },
        [&](double x) { return status->next_birthday(x); }, by_force, true);
}

namespace {

// A life annuity's pieces: each payment weighted by survival (on the life's
// grid where its payments fall on one), flows integrated against survival.
struct LifePieces {
    const PiecewiseTable& curve;
    const Status& status;
    GridCache* cache;
    double payments(const Schedule& s, double w) const {
        return weighted(w, life_discrete_value(curve, s, status, cache));
    }
    double flow(const Annuity& annuity, double a, double b) const {
        return survival_integral(curve, a, b, annuity.d, annuity.growth, status, false);
    }
};

}  // namespace

double life_annuity_value(const PiecewiseTable& curve, const Annuity& annuity, Mode mode, const Status& status,
                          GridCache* cache) {
    return value_in_mode(annuity, mode, LifePieces{curve, status, cache});
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
        if (end > start)
            total += amounts[i] / (end - start) * survival_integral(curve, start, end, start, level, status, false);
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
               survival_integral(curve, a, b, a, Growth{}, status, true);
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

std::optional<LifeBenefit> life_benefit_named(std::string_view name) {
    if (name == "annuity") return LifeBenefit::Annuity;
    if (name == "insurance") return LifeBenefit::Insurance;
    if (name == "endowment_insurance") return LifeBenefit::EndowmentInsurance;
    if (name == "pure_endowment") return LifeBenefit::PureEndowment;
    return std::nullopt;
}

namespace {

// A policy's parts valued: what life_benefit_value composes.
struct ValueParts {
    const PiecewiseTable& curve;
    const Status& status;
    const PolicyTerms& terms;
    std::optional<std::span<const double>> amounts;
    GridCache* cache;

    LifeValue annuity(const Annuity& annuity, double term) const {
        if (!amounts) return {LifeValue::None, life_annuity_value(curve, annuity, terms.mode, status, cache)};
        const std::size_t full = payment_count(term, terms.m, terms.tolerance_eps).size;
        if (amounts->size() != full) return {LifeValue::AmountCount, 0.0, full};
        return {LifeValue::None,
                life_amounts_value(curve, annuity, amounts->subspan(full - annuity.payments_size), terms.mode, status)};
    }
    double insurance(const Annuity& periods) const { return life_insurance_value(curve, periods, terms.mode, status); }
    double endowment(double t) const { return pure_endowment_value(curve, t, status); }
};

}  // namespace

LifeValue life_benefit_value(LifeBenefit benefit, const PiecewiseTable& curve, const Status& status, double ts,
                             double d, double n, PolicyTerms terms, std::optional<std::span<const double>> amounts,
                             GridCache* cache) {
    return life_benefit(benefit, status, ts, d, n, terms, ValueParts{curve, status, terms, amounts, cache});
}

double life_expectancy(const Status& status, bool complete) {
    PolicyTerms terms;
    terms.mode = complete ? Mode::ContinuousPrecision : Mode::DiscretePrecision;
    const double whole_life =
        life_benefit_value(LifeBenefit::Annuity, no_interest(), status, 0.0, 0.0, PiecewiseTable::kInfinity, terms)
            .value;
    return complete ? whole_life : whole_life - 1.0;
}

bool age_fits(const MortalityTable& table, double age, double select_age, double ts) {
    const double first = table.first_age(), select = select_age_of(age, select_age);
    if (!(age + ts < table.end_age())) return false;  // beyond the last age at ts
    if (!(age >= (table.has_select_row(static_cast<int>(select)) ? select : first))) return false;
    return std::isnan(select_age) || (select_age == std::floor(select_age) && select_age <= age && select_age >= first);
}

}  // namespace norvane::core
