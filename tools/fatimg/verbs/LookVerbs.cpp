/// @file LookVerbs.cpp

#include "LookVerbs.h"

namespace fatimg {

void AddLookVerbs(Grammar& grammar) { AddCat(grammar); }

}  // namespace fatimg
