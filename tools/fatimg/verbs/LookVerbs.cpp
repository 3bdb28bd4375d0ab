/// @file LookVerbs.cpp

#include "LookVerbs.h"

namespace fatimg {

void AddLookVerbs(Grammar& grammar) {
  AddInfo(grammar);
  AddLs(grammar);
  AddTree(grammar);
  AddStat(grammar);
  AddFind(grammar);
  AddDu(grammar);
  AddDf(grammar);
  AddCat(grammar);
  AddMap(grammar);
  AddCheck(grammar);
  AddVerify(grammar);
}

}  // namespace fatimg
