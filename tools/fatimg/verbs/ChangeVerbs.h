/// @file ChangeVerbs.h
/// One function for each verb that changes something; each is in the file of its name.

#ifndef FATIMG_CHANGEVERBS_H
#define FATIMG_CHANGEVERBS_H

#include "Verbs.h"

namespace fatimg {

void AddFormat(Grammar& grammar);
void AddPut(Grammar& grammar);
void AddGet(Grammar& grammar);
void AddCp(Grammar& grammar);
void AddMv(Grammar& grammar);
void AddMkdir(Grammar& grammar);
void AddRm(Grammar& grammar);
void AddTouch(Grammar& grammar);
void AddTruncate(Grammar& grammar);
void AddAttr(Grammar& grammar);
void AddLabel(Grammar& grammar);
void AddRun(Grammar& grammar);

}  // namespace fatimg

#endif  // FATIMG_CHANGEVERBS_H
