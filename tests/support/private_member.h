#pragma once

namespace kelp::test {

// Reaches a private member for a test that has no other way to see it: what a thread is about to do, or a position
// that no operation tells. Use:
//
//     using WorkerClosed = std::atomic<bool> Worker::*;
//     WorkerClosed privateMember(PrivateMember<struct ClosedTag, WorkerClosed>);
//     template struct ExposeMember<struct ClosedTag, &Worker::closed_>;
//     ... worker.*privateMember(PrivateMember<ClosedTag, WorkerClosed>{})
template <class Tag, class Type>
struct PrivateMember {};

// Naming a private member is allowed in an explicit instantiation.
template <class Tag, auto member>
struct ExposeMember {
    friend decltype(member) privateMember(PrivateMember<Tag, decltype(member)>) { return member; }
};

}  // namespace kelp::test
