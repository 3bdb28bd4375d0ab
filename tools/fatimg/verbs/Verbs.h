/// @file Verbs.h
/// Makes the verbs known to the grammar, in the order in which --help lists them.

#ifndef FATIMG_VERBS_H
#define FATIMG_VERBS_H

#include "../Command.h"

namespace fatimg {

/// The verbs that only look: they open images for reading only.
void AddLookVerbs(Grammar& grammar);
/// The verbs that change an image, "get", which writes host files, and "run".
void AddChangeVerbs(Grammar& grammar);

}  // namespace fatimg

#endif  // FATIMG_VERBS_H
