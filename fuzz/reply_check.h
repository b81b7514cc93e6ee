/* Is this a reply to that request? */
#ifndef FUZZ_REPLY_CHECK_H
#define FUZZ_REPLY_CHECK_H

#include <string>

#include "service_rig.h"

/* Compares a reply with the layout that belongs to the request's type: fields, counts, records to
 * the last byte. Anything else is a finding. */
void require_reply(const std::string& request, const rig_reply& reply);

#endif
