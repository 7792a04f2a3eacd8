#!/usr/bin/python3
"""Proves how long a low task waits at most, for every number of high and normal tasks at once.

usage: longest_wait.py ROOT

The rule's weights, its comparison, and that a queue which gives way loses its streak, are read from
scheduler/TaskRunQueues.cpp, and the bound from docs/design.md, which explains the rank. An SMT solver looks for a
counterexample to each claim. One that it finds is printed and fails the check; so does a claim that it cannot decide.

Streaks are whole numbers here, but for the last claim: what fixed words do to them is tried in all cases of small ones.
"""

import operator
import re
import sys
from itertools import groupby
from pathlib import Path

from z3 import And, If, Implies, Int, Not, Or, Solver, sat, unsat

COMPARISONS = {">": operator.gt, ">=": operator.ge, "<": operator.lt, "<=": operator.le}


def found(pattern, path):
    return re.search(pattern, path.read_text(), re.DOTALL) or sys.exit(f"{path}: nothing reads like {pattern}")


class Rule:
    """What the source says."""

    def __init__(self, source: Path):
        weights = found(r"runFactors\{0, (\d+), (\d+), (\d+), 0\}", source)
        self.high, self.normal, self.low = map(int, weights.groups())
        self.exceeds = COMPARISONS[found(r"lower \* backToBackRunCount ([<>]=?) weightedBacklog<p>\(\)", source)[1]]
        self.ends_streak = "backToBackRunCountIs(0)" in found(r"::bumpBelow\(\) \{(.*?)\n\}", source)[1]


class Bound:
    """What the document says."""

    def __init__(self, document: Path):
        factors = found(r"\n    \((\d+)N \+ 2\) × \((\d+)H \+ 2\)\n", document)
        self.normal, self.high = map(int, factors.groups())


class State:
    """Whatever a pass may meet while a low task is runnable and no absolute one is."""

    high, normal, low = Int("high"), Int("normal"), Int("low")
    most_high, most_normal = Int("H"), Int("N")
    high_streak, normal_streak = Int("high's streak"), Int("normal's streak")
    possible = And(high >= 0, high <= most_high, normal >= 0, normal <= most_normal, low >= 1,
                   high_streak >= 0, normal_streak >= 0)


class Pass:
    """One pass, in the order of TaskRunQueues::pickFrom.

    A product of two unknowns is an unknown of its own, of which the solver knows what at_least() says."""

    def __init__(self, rule, at):
        below_normal = at.low * rule.low
        below_high = below_normal + at.normal * rule.normal
        high_product, normal_product = Int("backlog below high * streak"), Int("backlog below normal * streak")
        self.products = And(at_least(high_product, below_high, at.high_streak),
                            at_least(normal_product, below_normal, at.normal_streak))

        high_gives_way = And(below_high != 0, rule.exceeds(high_product, at.high * rule.high))
        normal_gives_way = And(below_normal != 0, rule.exceeds(normal_product, at.normal * rule.normal))
        runs_high = And(at.high > 0, Not(high_gives_way))
        runs_normal = And(Not(runs_high), at.normal > 0, Not(normal_gives_way))
        self.runs_low = And(Not(runs_high), Not(runs_normal))

        def passed_over(backlog, streak):
            return 0 if rule.ends_streak else If(backlog == 0, 0, streak)

        self.high_streak = If(runs_high, at.high_streak + 1, passed_over(at.high, at.high_streak))
        self.normal_streak = If(runs_high, at.normal_streak,
                                If(runs_normal, at.normal_streak + 1, passed_over(at.normal, at.normal_streak)))


def at_least(product, backlog, streak):
    """What is true of product = backlog * streak, and enough here."""
    return And(Implies(backlog >= 1, product >= streak), Implies(backlog == 1, product == streak))


def steps(product, factor, after, factor_after, by):
    """What is true of two products by the same, when one factor is the other, or one less."""
    return And(Implies(factor_after == factor, after == product),
               Implies(factor_after == factor - 1, after == product - by))


class Rank:
    """(8N + 1 - normal's streak)+ * (64H + 2) + (64H + 1 - high's streak)+ + 1, with the weights of the bound.

    With H = 0, or N = 0, the factor and the summand that count their runs are 1 and 0."""

    def __init__(self, bound, at, high_streak, normal_streak, name):
        most = bound.high * at.most_high + 1
        self.block = If(at.most_high == 0, 1, most + 1)
        self.looks_below = If(at.most_normal == 0, 0, positive(bound.normal * at.most_normal + 1 - normal_streak))
        self.high_runs = If(at.most_high == 0, 0, positive(most - high_streak))
        self.product = Int(name)
        self.value = self.product + self.high_runs + 1


def positive(value):
    return If(value > 0, value, 0)


def holds(claim, condition, conclusion):
    """Whether no values fulfil the condition without the conclusion, and some the condition."""
    solver = Solver()
    solver.set("timeout", 60_000)
    solver.add(condition)
    if solver.check() != sat:
        print(f"FAILS: nothing fulfils the condition: {claim}")
        return False
    solver.add(Not(conclusion))
    result = solver.check()
    print(f"{'holds' if result == unsat else 'FAILS' if result == sat else 'unknown'}: {claim}")
    if result == sat:
        print("   ", solver.model())
    return result == unsat


def lemmas():
    """The laws of products that the claims use. Proved by themselves: amid a claim the solver does not find them."""
    a, b, c = Int("a"), Int("b"), Int("c")
    yield holds("a product by 1 is the other factor, one by more is no less", And(a >= 1, b >= 0),
                And(a * b >= b, 1 * b == b))
    yield holds("one factor less is one summand less", b >= 0, (a - 1) * b == a * b - b)
    yield holds("a product of smaller factors is no larger", And(0 <= a, a <= c, b >= 0), And(0 <= a * b, a * b <= c * b))


def claims(rule, bound):
    at = State()
    before = Rank(bound, at, at.high_streak, at.normal_streak, "rank's product")
    work = Pass(rule, at)
    after = Rank(bound, at, work.high_streak, work.normal_streak, "rank's product after")
    known = And(at.possible, work.products, before.product >= 0,
                steps(before.product, before.looks_below, after.product, after.looks_below, before.block))
    yield holds("the rank falls in every pass that runs no low task", And(known, Not(work.runs_low)),
                after.value < before.value)

    first_factor = If(at.most_normal == 0, 1, bound.normal * at.most_normal + 2)
    largest = Int("(first factor - 1) * block")
    yield holds("the rank is at least 1, and never exceeds the bound",
                And(at.possible, before.product >= 0,
                    Implies(before.looks_below <= first_factor - 1, before.product <= largest)),
                And(before.value >= 1, before.value <= largest + before.block))

    # High is always full; the normal tasks come when high is about to give way, and go again.
    about_to_give_way = Or(at.most_high == 0, at.high_streak == bound.high * at.most_high + 1)
    worst = And(at.low == 1, at.high == at.most_high, at.normal == If(about_to_give_way, at.most_normal, 0),
                before.high_runs + before.looks_below > 0,
                Implies(at.most_high == 0, at.high_streak == 0),
                Implies(at.most_high > 0, at.high_streak <= bound.high * at.most_high + 1),
                Implies(at.most_normal == 0, at.normal_streak == 0),
                Implies(at.most_normal > 0, at.normal_streak <= bound.normal * at.most_normal + 1))
    yield holds("the bound is reached: at worst the rank falls by 1, and no low task runs before it is 1",
                And(known, worst), And(Not(work.runs_low), after.value == before.value - 1))


def words(bits):
    """Whether high, with a weighted backlog of at most W and at most M below it, runs W + 1 times in a row at most, for
    all streaks in words of so many bits, if M * (W + M) < 2 ** bits. The streak stops at the largest word."""
    count = 1 << bits
    for most_below in range(1, count):
        most_own = (count - 1) // most_below - most_below
        if most_own < 1:
            break
        smallest = [min(below * streak % count for below in range(1, most_below + 1)) for streak in range(count)]
        for own in range(1, most_own + 1):
            in_a_row = max(len(list(run)) for runs, run in groupby(product <= own for product in smallest) if runs)
            if in_a_row > own + 1 or smallest[-1] <= own:
                print(f"FAILS: words of {bits} bits, backlogs of {own} and {most_below} below: {in_a_row} in a row")
                return False
    print(f"holds: in words of {bits} bits no streak runs longer")
    return True


def main(root):
    rule = Rule(root / "scheduler/TaskRunQueues.cpp")
    bound = Bound(root / "docs/design.md")
    return 0 if all([*lemmas(), *claims(rule, bound), *map(words, range(4, 10))]) else 1


sys.exit(main(Path(sys.argv[1])))
