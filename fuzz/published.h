/* The published objects of a player, as any program reads them: well-formed texts that say what the
 * service answers. */
#ifndef FUZZ_PUBLISHED_H
#define FUZZ_PUBLISHED_H

#include <string>

#include "service_rig.h"

/* Every object of a player has a form. */
void require_objects(const std::string& player);

/* The objects agree with this reply to a request of that type. */
void require_agreement(const std::string& player, uint16_t type, const rig_reply& reply);

#endif
