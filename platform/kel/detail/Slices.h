#pragma once

#include <kel/SlicedText.h>
#include <mox/Integers.h>

#include <coroutine>
#include <exception>
#include <utility>

namespace Kel {

/// A coroutine that makes a sliced text. By `co_yield n` it says that about n nanoseconds of work are done,
/// and is left there once that is enough for a slice, which is what the expression tells then; by `co_await`
/// it has another one work in its place.
///
/// The work is estimated, not measured: reading a clock costs as much as a step of it, and where a test holds
/// the clock a slice would never end.
class [[nodiscard]] Slices {
  public:
    class promise_type;

    /// Ends a slice, whatever it has cost by then.
    static constexpr Mox::U32 whole = 25000;

    Slices() = default;
    Slices(Slices&& other) noexcept : coroutine_(std::exchange(other.coroutine_, nullptr)) {}
    Slices& operator=(Slices&& other) noexcept {
        std::swap(coroutine_, other.coroutine_);
        return *this;
    }
    ~Slices() { end(); }

    /// Works for one slice. False when that was the last, or when there is none; throws what ends the work.
    bool work();

    /// What `co_await` of the other one asks for.
    auto operator co_await() &&;

  private:
    using Coroutine = std::coroutine_handle<promise_type>;

    explicit Slices(Coroutine coroutine) : coroutine_(coroutine) {}
    void end() {
        if (Coroutine const ended = std::exchange(coroutine_, nullptr))
            ended.destroy();
    }

    Coroutine coroutine_;
};

/// What the coroutines of a text share stands in the outermost one.
class Slices::promise_type {
  public:
    Slices get_return_object() { return Slices(Coroutine::from_promise(*this)); }
    std::suspend_always initial_suspend() noexcept { return {}; }
    auto final_suspend() noexcept { return ToOuter{}; }
    void return_void() {}
    void unhandled_exception() { thrown_ = std::current_exception(); }

    auto yield_value(Mox::U32 nanoseconds) noexcept {
        struct IfEnough : std::suspend_always {
            bool enough;
            bool await_ready() const noexcept { return !enough; }
            bool await_resume() const noexcept { return enough; }
        };
        outermost_->spent_ += nanoseconds;
        return IfEnough{{}, outermost_->spent_ >= whole};
    }

  private:
    friend class Slices;

    /// The end of a coroutine: the one that waits for it goes on.
    struct ToOuter {
        bool await_ready() const noexcept { return false; }
        std::coroutine_handle<> await_suspend(Coroutine ended) const noexcept {
            promise_type const& promise = ended.promise();
            if (!promise.outer_)
                return std::noop_coroutine();
            promise.outermost_->innermost_ = promise.outer_;
            return promise.outer_;
        }
        void await_resume() const noexcept {}
    };

    void rethrow() const {
        if (thrown_)
            std::rethrow_exception(thrown_);
    }

    Coroutine outer_;
    promise_type* outermost_ = this;
    std::exception_ptr thrown_;

    // Of the outermost one
    Coroutine innermost_ = Coroutine::from_promise(*this); // which works
    Mox::U32 spent_ = 0;                                   // in this slice
};

inline bool Slices::work() {
    if (!coroutine_)
        return false;
    promise_type& promise = coroutine_.promise();
    promise.spent_ = 0;
    promise.innermost_.resume();
    if (!coroutine_.done())
        return true;
    Slices const ended = std::move(*this);
    promise.rethrow();
    return false;
}

inline auto Slices::operator co_await() && {
    struct Inner {
        bool await_ready() const noexcept { return false; }
        Coroutine await_suspend(Coroutine outer) const noexcept {
            promise_type& promise = inner.promise();
            promise.outer_ = outer;
            promise.outermost_ = outer.promise().outermost_;
            promise.outermost_->innermost_ = inner;
            return inner;
        }
        void await_resume() const { inner.promise().rethrow(); }
        Coroutine inner;
    };
    return Inner{coroutine_};
}

/// Lets the container's elements go, from its first on.
template <class Container> Slices freed(Container& container) {
    constexpr Mox::U32 perElement = 150;
    while (!container.empty()) {
        container.erase(container.begin());
        co_yield perElement;
    }
}

/// A sliced text that a coroutine makes: `make()`, which appends to `text()`.
class TextInSlices : public SlicedText {
  public:
    bool next(std::string& text) final {
        text_ = &text;
        if (!std::exchange(isBegun_, true))
            slices_ = make();
        return slices_.work();
    }

  protected:
    std::string& text() { return *text_; }

  private:
    virtual Slices make() = 0;

    bool isBegun_ = false;
    std::string* text_ = nullptr; // of this slice
    Slices slices_;
};

/// The same of lines. Base is SlicedLines, or a class of lines that extends it.
template <class Base = SlicedLines> class LinesInSlices : public Base {
  public:
    bool nextLines(std::vector<std::string>& lines) final {
        lines_ = &lines;
        if (!std::exchange(isBegun_, true))
            slices_ = make();
        return slices_.work();
    }

  protected:
    void line(std::string line) { lines_->push_back(std::move(line)); }

  private:
    virtual Slices make() = 0;

    bool isBegun_ = false;
    std::vector<std::string>* lines_ = nullptr; // of this slice
    Slices slices_;
};

} // namespace Kel
