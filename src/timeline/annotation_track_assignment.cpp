#include "timeline/annotation_track_assignment.h"

#include <algorithm>
#include <numeric>
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

  std::vector<ProjectTime> laneEnds;
  std::unordered_map<Uuid, std::int64_t> laneByID;
  laneByID.reserve(annotations.size());
  for (std::size_t index : order) {
    const AnnotationElement& annotation = annotations[index];
    // An annotation stays in its own lane whenever that lane is free, so a reflow after an edit
    // moves as little as possible.
    std::size_t preferred = static_cast<std::size_t>(std::max<std::int64_t>(annotation.trackIndex, 0));
    std::size_t lane = laneEnds.size();
    if (preferred < laneEnds.size() && laneEnds[preferred] <= annotation.startTime) {
      lane = preferred;
    } else {
      for (std::size_t candidate = 0; candidate < laneEnds.size(); ++candidate) {
        if (laneEnds[candidate] <= annotation.startTime) {
          lane = candidate;
          break;
        }
      }
    }
    if (lane == laneEnds.size()) laneEnds.push_back(annotation.endTime);
    else laneEnds[lane] = annotation.endTime;
    laneByID[annotation.id] = static_cast<std::int64_t>(lane);
  }

  std::vector<AnnotationElement> result = annotations;
  for (AnnotationElement& annotation : result) annotation.trackIndex = laneByID.at(annotation.id);
  return result;
}

}  // namespace vumo
