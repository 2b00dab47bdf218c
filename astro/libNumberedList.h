// A list whose elements are numbered from 1, as all star lists are.
#pragma once

#include <concepts>
#include <cstdint>
#include <initializer_list>
#include <utility>
#include <vector>

namespace vestrel {

/// A list whose elements have the numbers 1..Count(). Records that point into such a list (the
/// pairs of a match, the corners of a triangle) hold these numbers, and 0 stands for none.
template <typename Element>
class NumberedList {
 public:
    using value_type = Element;

    NumberedList() = default;
    NumberedList(std::initializer_list<Element> elements) : elements_(elements) {}

    std::int32_t Count() const { return static_cast<std::int32_t>(elements_.size()); }
    bool Empty() const { return elements_.empty(); }
    template <std::integral Number>
    bool Has(Number number) const {
        return number >= 1 && std::cmp_less_equal(number, elements_.size());
    }

    /// The element with this number, 1..Count(); not checked.
    template <std::integral Number>
    Element& operator[](Number number) {
        return elements_[static_cast<std::size_t>(number) - 1];
    }
    template <std::integral Number>
    const Element& operator[](Number number) const {
        return elements_[static_cast<std::size_t>(number) - 1];
    }

    void Add(const Element& element) { elements_.push_back(element); }
    void Clear() { elements_.clear(); }
    void Reserve(std::int32_t count) { elements_.reserve(static_cast<std::size_t>(count)); }
    /// Sets the number of elements: those beyond `count` go, new ones are value-initialised.
    void Resize(std::int32_t count) { elements_.resize(static_cast<std::size_t>(count)); }
    template <typename Condition>
    void RemoveIf(Condition condition) {
        std::erase_if(elements_, condition);
    }

    auto begin() { return elements_.begin(); }
    auto end() { return elements_.end(); }
    auto begin() const { return elements_.begin(); }
    auto end() const { return elements_.end(); }

 private:
    std::vector<Element> elements_;
};

}  // namespace vestrel
