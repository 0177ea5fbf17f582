/// Puts together what several sentences tell of one instant, for epoch_builder.cpp.
#pragma once

#include <optional>

#include "tools/nmea/epoch_builder.h"

namespace nmea::detail {

/// Takes over what is still missing.
template <typename T>
void complete(std::optional<T>& target, const std::optional<T>& source) {
  if (!target) target = source;
}

/// Marks the sentences whose position, speed, course or altitude the majority of the others of the
/// instant contradicts. With two against one another, the order of Navigation_type decides.
void judge(Navigation_sentences& sentences);

/// Call it in the order in which the sentences are believed.
void take(const Navigation& navigation, Fix& fix);

/// Call it after all navigation sentences.
void take(const Sky& sky, Fix& fix);

}  // namespace nmea::detail
