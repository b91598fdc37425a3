// Sets that are values: several of one type, copied to and fro, held against plain lists through every size.
#pragma once

#include "tests/TestSeed.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <random>
#include <type_traits>
#include <utility>
#include <vector>

template <class Set, class Element>
class SetModel {
  public:
    using MakeElement = Element (*)(unsigned number);

    /// `makeElement` makes equal elements of equal numbers, from 0 on. A set that `isSorted` is walked, and one that
    /// `isUnordered` compared, in ascending order, else in order of insertion.
    SetModel(MakeElement makeElement, bool isSorted, bool isUnordered)
        : makeElement_(makeElement)
        , isSorted_(isSorted)
        , isUnordered_(isUnordered) {}

    void holdAgainstModel() {
        const std::uint32_t seed = testSeed();
        SCOPED_TRACE(seedText(seed));
        random_.seed(seed);
        for (int step = 0; step < 30000 && !testing::Test::HasFailure(); ++step) {
            SCOPED_TRACE(step);
            change(makeElement_(pick(step % 4000 < 2000 ? 12 : 250)));
        }
    }

  private:
    using Model = std::vector<Element>; // in the order of a walk

    unsigned pick(unsigned below) { return std::uniform_int_distribution(0U, below - 1)(random_); }
    static Model elementsOf(const Set& set) {
        if constexpr (requires { set.elements(); })
            return set.elements();
        else
            return {set.begin(), set.end()};
    }
    static bool has(const Model& model, const Element& element) {
        return std::find(model.begin(), model.end(), element) != model.end();
    }
    void add(Model& model, const Element& element) const {
        if (!has(model, element))
            model.insert(isSorted_ ? std::lower_bound(model.begin(), model.end(), element) : model.end(),
                         element);
    }
    Model compared(Model model) const {
        if (isUnordered_)
            std::sort(model.begin(), model.end());
        return model;
    }

    void change(const Element& element) {
        const unsigned at = pick(4);
        const unsigned from = pick(4);
        Set& set = sets_[at];
        Model& model = models_[at];
        const bool isThere = has(model, element);
        switch (pick(12)) {
        case 0:
            set = sets_[from];
            model = Model(models_[from]);
            break;
        case 1:
            std::swap(set, sets_[from]);
            std::swap(model, models_[from]);
            break;
        case 2:
            if (pick(10) == 0) {
                set = {};
                model.clear();
            } else if constexpr (requires { set.insertAll(sets_[from]); }) {
                set.insertAll(sets_[from]);
                for (const Element& each : Model(models_[from]))
                    add(model, each);
            }
            break;
        case 3:
        case 4:
        case 5:
        case 6:
            if constexpr (requires { set.erase(element); }) {
                ASSERT_EQ(set.erase(element), isThere);
                std::erase(model, element);
                break;
            }
            [[fallthrough]];
        default:
            if constexpr (std::is_void_v<decltype(set.insert(element))>)
                set.insert(element);
            else
                ASSERT_EQ(set.insert(element), !isThere);
            add(model, element);
        }
        for (std::size_t i = 0; i < sets_.size(); ++i) { // all of them: a copy must not have changed
            ASSERT_EQ(elementsOf(sets_[i]), models_[i]);
            ASSERT_EQ(sets_[i].size(), models_[i].size());
        }
        if constexpr (requires { set.has(element); }) {
            ASSERT_EQ(set.has(element), has(model, element));
            ASSERT_EQ(set.empty(), model.empty());
        }
        const Model mine = compared(model);
        const Model theirs = compared(models_[from]);
        ASSERT_EQ(set == sets_[from], mine == theirs);
        ASSERT_EQ(set <=> sets_[from], mine <=> theirs);
        bool isHashRight = true;
        if constexpr (requires { set.hash(3); })
            isHashRight = mine != theirs || set.hash(3) == sets_[from].hash(3);
        ASSERT_TRUE(isHashRight);
    }

    MakeElement makeElement_;
    bool isSorted_;
    bool isUnordered_;
    std::mt19937 random_;
    std::array<Set, 4> sets_{};
    std::array<Model, 4> models_{};
};
