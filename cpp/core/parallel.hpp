// Splitting a long loop across the machine's cores.
#pragma once

#include <algorithm>
#include <cstddef>
#include <thread>
#include <vector>

namespace norvane::core {

// Calls fn(begin, end) over [0, size) in contiguous chunks, one per core, on
// separate threads when each chunk has at least min_chunk elements; otherwise
// once on the calling thread. fn must not throw.
template <typename Fn>
void parallel_for(std::size_t size, std::size_t min_chunk, Fn fn) {
    std::size_t cores = std::max(1u, std::thread::hardware_concurrency());
    std::size_t workers = std::min(cores, std::max<std::size_t>(1, size / min_chunk));
    if (workers <= 1) {
        fn(std::size_t{0}, size);
        return;
    }
    std::vector<std::thread> threads;
    threads.reserve(workers - 1);
    std::size_t chunk = (size + workers - 1) / workers;
    for (std::size_t w = 1; w < workers; ++w) {
        std::size_t begin = std::min(size, w * chunk), end = std::min(size, begin + chunk);
        threads.emplace_back([=] { fn(begin, end); });
    }
    fn(std::size_t{0}, std::min(size, chunk));
    for (auto& t : threads) t.join();
}

}  // namespace norvane::core
