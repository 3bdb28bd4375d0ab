/// @file ChangeVerbs.cpp

#include "ChangeVerbs.h"

namespace fatimg {

void AddChangeVerbs(Grammar& grammar) {
  AddFormat(grammar);
  AddPut(grammar);
  AddGet(grammar);
  AddCp(grammar);
  AddMv(grammar);
  AddMkdir(grammar);
  AddRm(grammar);
  AddTouch(grammar);
  AddTruncate(grammar);
  AddAttr(grammar);
  AddLabel(grammar);
  AddRun(grammar);
}

}  // namespace fatimg
