// Making the records of functions and methods from the functions themselves.
//
//     constexpr auto ARGS = DescribeArguments<&AddPSpaceRoot>("name", "root");
//     constexpr ReflectedGlobalFunction RECORD = DescribeFunction<&AddPSpaceRoot>("quna::AddPSpaceRoot", ARGS);
//
// Both are static constants, since the record refers to its arguments.
#pragma once

#include "qxObject/ReflectedGlobalFunction.h"
#include "qxObject/ReflectedMember.h"
#include "qxObject/TypeDescription.h"
#include "qxUtils/BasicTypes.h"

#include <array>
#include <cstddef>
#include <memory>
#include <new>
#include <type_traits>
#include <utility>

namespace quna {

namespace detail {

template <class F>
struct FunctionTraits;

template <class Result, class... Args>
struct FunctionTraits<Result (*)(Args...)> {
    using ResultType = Result;
    static constexpr std::size_t NUM_ARGS = sizeof...(Args);

    template <class... Names>
    static constexpr std::array<ReflectedArgument, NUM_ARGS> Describe(Names... names) {
        return {ReflectedArgument{names, DescriptionFnOf<Args>()}...};
    }

    template <class F>
    static void Invoke(F function, void* result, void* const* args) {
        InvokeIndexed(function, result, args, std::index_sequence_for<Args...>());
    }

private:
    template <class F, std::size_t... INDEXES>
    static void InvokeIndexed(F function, void* result, [[maybe_unused]] void* const* args,
                              std::index_sequence<INDEXES...>) {
        if constexpr (std::is_void_v<Result>)
            function(static_cast<Args>(*static_cast<std::remove_reference_t<Args>*>(args[INDEXES]))...);
        else if constexpr (std::is_reference_v<Result>)
            ::new (result) std::add_pointer_t<Result>(std::addressof(
                function(static_cast<Args>(*static_cast<std::remove_reference_t<Args>*>(args[INDEXES]))...)));
        else
            ::new (result)
                Result(function(static_cast<Args>(*static_cast<std::remove_reference_t<Args>*>(args[INDEXES]))...));
    }
};

template <class Result, class... Args>
struct FunctionTraits<Result (*)(Args...) noexcept> : FunctionTraits<Result (*)(Args...)> {};

// A method counts as a function of its arguments; the object comes in front of them only when it is called.
template <class Result, class Class, class... Args>
struct FunctionTraits<Result (Class::*)(Args...)> : FunctionTraits<Result (*)(Args...)> {
    using WithSelf = FunctionTraits<Result (*)(Class*, Args...)>;
};
template <class Result, class Class, class... Args>
struct FunctionTraits<Result (Class::*)(Args...) const> : FunctionTraits<Result (*)(Args...)> {
    using WithSelf = FunctionTraits<Result (*)(const Class*, Args...)>;
};

template <auto F>
void InvokeFunction(void* result, void* const* args) {
    FunctionTraits<decltype(F)>::Invoke(F, result, args);
}

template <auto METHOD>
void InvokeMethod(void* result, void* const* args) {
    const auto call = [](auto* self, auto&&... rest) -> decltype(auto) {
        return (self->*METHOD)(std::forward<decltype(rest)>(rest)...);
    };
    FunctionTraits<decltype(METHOD)>::WithSelf::Invoke(call, result, args);
}

} // namespace detail

// The arguments of a function or method, with their names in order.
template <auto F, class... Names>
constexpr auto DescribeArguments(Names... names) {
    using Traits = detail::FunctionTraits<decltype(F)>;
    static_assert(sizeof...(Names) == Traits::NUM_ARGS, "one name for each argument");
    return Traits::Describe(names...);
}

template <auto F, std::size_t N>
constexpr ReflectedGlobalFunction DescribeFunction(ConstStringZ name, const std::array<ReflectedArgument, N>& args) {
    using Traits = detail::FunctionTraits<decltype(F)>;
    static_assert(N == Traits::NUM_ARGS);
    return {name, DescriptionFnOf<typename Traits::ResultType>(), args.data(), static_cast<ssize_t>(N),
            &detail::InvokeFunction<F>};
}

template <auto METHOD, std::size_t N>
constexpr ReflectedMethod DescribeMethod(ConstStringZ name, const std::array<ReflectedArgument, N>& args) {
    using Traits = detail::FunctionTraits<decltype(METHOD)>;
    static_assert(N == Traits::NUM_ARGS);
    return {name, DescriptionFnOf<typename Traits::ResultType>(), args.data(), static_cast<ssize_t>(N),
            &detail::InvokeMethod<METHOD>};
}

} // namespace quna
