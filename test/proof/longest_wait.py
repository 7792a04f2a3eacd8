#!/usr/bin/python3
"""Proves how long a low task waits at most, for every number of high and normal tasks at once.

usage: longest_wait.py ROOT

The rule's weights, its comparison, and that a queue which gives way loses its streak, are read from
scheduler/TaskRunQueues.cpp, and the bound from docs/design.md, which explains the rank. An SMT solver looks for a
counterexample to each claim. One that it finds is printed and fails the check; so does a claim that it cannot decide.

Streaks are whole numbers here; docs/design.md says why the claim holds in words of 32 bits.
"""

import operator
import re
import sys
from pathlib import Path

from z3 import And, If, Implies, Int, Ints, Not, Or, Solver, sat, unsat

COMPARISONS = {">": operator.gt, ">=": operator.ge, "<": operator.lt, "<=": operator.le}

# Whatever a pass may meet while a low task is runnable and no absolute one is.
MOST_HIGH, MOST_NORMAL, HIGH, NORMAL, LOW = Ints("H N high normal low")
HIGH_STREAK, NORMAL_STREAK = Ints("highStreak normalStreak")
POSSIBLE = And(HIGH >= 0, HIGH <= MOST_HIGH, NORMAL >= 0, NORMAL <= MOST_NORMAL, LOW >= 1,
               HIGH_STREAK >= 0, NORMAL_STREAK >= 0)


def found(pattern, path):
    return re.search(pattern, path.read_text(), re.DOTALL) or sys.exit(f"{path}: nothing reads like {pattern}")


class Pass:
    """One pass by the rule that the source states, in the order of TaskRunQueues::pickFrom.

    A product of two unknowns is an unknown of its own, of which the solver knows what at_least() says."""

    def __init__(self, source):
        weights = found(r"runFactors\{0, (\d+), (\d+), (\d+), 0\}", source)
        high_weight, normal_weight, low_weight = map(int, weights.groups())
        exceeds = COMPARISONS[found(r"lower \* backToBackRunCount ([<>]=?) weightedBacklog<p>\(\)", source)[1]]
        ends_streak = "backToBackRunCountIs(0)" in found(r"::bump\(.*?\) \{(.*?)\n\}", source)[1]

        below_normal = LOW * low_weight
        below_high = below_normal + NORMAL * normal_weight
        high_product, normal_product = Ints("highProduct normalProduct")
        self.products = And(at_least(high_product, below_high, HIGH_STREAK),
                            at_least(normal_product, below_normal, NORMAL_STREAK))

        high_gives_way = And(below_high != 0, exceeds(high_product, HIGH * high_weight))
        normal_gives_way = And(below_normal != 0, exceeds(normal_product, NORMAL * normal_weight))
        runs_high = And(HIGH > 0, Not(high_gives_way))
        runs_normal = And(Not(runs_high), NORMAL > 0, Not(normal_gives_way))
        self.runs_low = And(Not(runs_high), Not(runs_normal))

        def passed_over(backlog, streak):
            return 0 if ends_streak else If(backlog == 0, 0, streak)

        self.high_streak = If(runs_high, HIGH_STREAK + 1, passed_over(HIGH, HIGH_STREAK))
        self.normal_streak = If(runs_high, NORMAL_STREAK,
                                If(runs_normal, NORMAL_STREAK + 1, passed_over(NORMAL, NORMAL_STREAK)))


def at_least(product, backlog, streak):
    """What is true of product = backlog * streak, and enough here."""
    return And(Implies(backlog >= 1, product >= streak), Implies(backlog == 1, product == streak))


class Rank:
    """(8N + 1 - normal's streak)+ * (64H + 2) + (64H + 1 - high's streak)+ + 1, with the weights of the bound.

    With H = 0, or N = 0, the factor and the summand that count their runs are 1 and 0."""

    def __init__(self, longest_high, longest_normal, high_streak, normal_streak, name):
        self.block = If(MOST_HIGH == 0, 1, longest_high + 1)
        self.looks_below = If(MOST_NORMAL == 0, 0, positive(longest_normal - normal_streak))
        self.high_runs = If(MOST_HIGH == 0, 0, positive(longest_high - high_streak))
        self.product = Int(name)
        self.value = self.product + self.high_runs + 1


def positive(value):
    return If(value > 0, value, 0)


def claims(root):
    """Each with its condition and its conclusion. First the laws of products that the others use: amid those the
    solver does not find them."""
    a, b, c = Ints("a b c")
    yield "a product by 1 is the other factor, one by more is no less", And(a >= 1, b >= 0), And(a * b >= b, 1 * b == b)
    yield "one factor less is one summand less", b >= 0, (a - 1) * b == a * b - b
    yield "a smaller factor, no larger product", And(0 <= a, a <= c, b >= 0), And(0 <= a * b, a * b <= c * b)

    factors = found(r"\n    \((\d+)N \+ 2\) × \((\d+)H \+ 2\)\n", root / "docs/design.md")
    longest_normal, longest_high = int(factors[1]) * MOST_NORMAL + 1, int(factors[2]) * MOST_HIGH + 1
    before = Rank(longest_high, longest_normal, HIGH_STREAK, NORMAL_STREAK, "product")
    work = Pass(root / "scheduler/TaskRunQueues.cpp")
    after = Rank(longest_high, longest_normal, work.high_streak, work.normal_streak, "productAfter")
    known = And(POSSIBLE, work.products, before.product >= 0,
                Implies(after.looks_below == before.looks_below, after.product == before.product),
                Implies(after.looks_below == before.looks_below - 1, after.product == before.product - before.block))
    yield "the rank falls in every pass that runs no low task", And(known, Not(work.runs_low)), after.value < before.value

    first_factor = If(MOST_NORMAL == 0, 1, longest_normal + 1)
    largest = Int("largestProduct")
    yield ("the rank is at least 1, and never exceeds the bound",
           And(POSSIBLE, before.product >= 0,
               Implies(before.looks_below <= first_factor - 1, before.product <= largest)),
           And(before.value >= 1, before.value <= largest + before.block))

    # High is always full; the normal tasks come when high is about to give way, and go again.
    about_to_give_way = Or(MOST_HIGH == 0, HIGH_STREAK == longest_high)
    worst = And(LOW == 1, HIGH == MOST_HIGH, NORMAL == If(about_to_give_way, MOST_NORMAL, 0),
                before.high_runs + before.looks_below > 0,
                HIGH_STREAK <= If(MOST_HIGH == 0, 0, longest_high),
                NORMAL_STREAK <= If(MOST_NORMAL == 0, 0, longest_normal))
    yield ("the bound is reached: at worst the rank falls by 1, and no low task runs before it is 1",
           And(known, worst), And(Not(work.runs_low), after.value == before.value - 1))


def counterexample(condition, conclusion):
    """What fulfils the condition without the conclusion, if anything; or that nothing fulfils the condition."""
    solver = Solver()
    solver.set("timeout", 60_000)
    solver.add(condition)
    if solver.check() != sat:
        return "nothing fulfils the condition"
    solver.add(Not(conclusion))
    result = solver.check()
    return None if result == unsat else solver.model() if result == sat else "not decided"


failures = [f"{claim}: {why}" for claim, *parts in claims(Path(sys.argv[1]))
            if (why := counterexample(*parts)) is not None]
sys.exit("\n".join(failures) or 0)
