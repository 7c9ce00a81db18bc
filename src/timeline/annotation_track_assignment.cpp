#include "timeline/annotation_track_assignment.h"

#include <algorithm>
#include <functional>
#include <numeric>
#include <queue>
#include <set>
#include <unordered_map>

namespace vumo {

std::vector<AnnotationElement> AnnotationTrackAssignment::reflow(const std::vector<AnnotationElement>& annotations) {
  std::vector<std::size_t> order(annotations.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  // Uuid ordering is by bytes, which is the order of the upper-case hexadecimal text.
  std::sort(order.begin(), order.end(), [&](std::size_t lhs, std::size_t rhs) {
    const AnnotationElement& a = annotations[lhs];
    const AnnotationElement& b = annotations[rhs];
    if (a.startTime != b.startTime) return a.startTime < b.startTime;
    if (a.endTime != b.endTime) return a.endTime < b.endTime;
    if (a.trackIndex != b.trackIndex) return a.trackIndex < b.trackIndex;
    return a.id < b.id;
  });

  // Starts only grow in this order, so a lane whose end is not after the current start stays free
  // for every later annotation until it is taken again. Busy lanes wait in a heap by end time and
  // move to the free set once the start passes them: O(n log n), even for a hostile document.
  using BusyLane = std::pair<ProjectTime, std::size_t>;  // end time, lane
  std::priority_queue<BusyLane, std::vector<BusyLane>, std::greater<>> busy;
  std::set<std::size_t> free;
  std::size_t laneCount = 0;
  std::unordered_map<Uuid, std::int64_t> laneByID;
  laneByID.reserve(annotations.size());
  for (std::size_t index : order) {
    const AnnotationElement& annotation = annotations[index];
    while (!busy.empty() && busy.top().first <= annotation.startTime) {
      free.insert(busy.top().second);
      busy.pop();
    }
    // An annotation stays in its own lane whenever that lane is free, so a reflow after an edit
    // moves as little as possible; otherwise it takes the lowest free lane, or opens one.
    const std::int64_t preferred = std::max<std::int64_t>(annotation.trackIndex, 0);
    std::size_t lane;
    if (auto it = free.find(static_cast<std::size_t>(preferred));
        static_cast<std::uint64_t>(preferred) < laneCount && it != free.end()) {
      lane = *it;
      free.erase(it);
    } else if (!free.empty()) {
      lane = *free.begin();
      free.erase(free.begin());
    } else {
      lane = laneCount++;
    }
    busy.emplace(annotation.endTime, lane);
    laneByID[annotation.id] = static_cast<std::int64_t>(lane);
  }

  std::vector<AnnotationElement> result = annotations;
  for (AnnotationElement& annotation : result) annotation.trackIndex = laneByID.at(annotation.id);
  return result;
}

}  // namespace vumo
