/// @file LookVerbs.h
/// One function for each verb that only looks; each is in the file of its name.

#ifndef FATIMG_LOOKVERBS_H
#define FATIMG_LOOKVERBS_H

#include "Verbs.h"

namespace fatimg {

void AddCat(Grammar& grammar);

}  // namespace fatimg

#endif  // FATIMG_LOOKVERBS_H
