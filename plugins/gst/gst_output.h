/* Sinks made from the descriptions in the configuration. [worker] */
#ifndef LYRANE_GST_OUTPUT_H
#define LYRANE_GST_OUTPUT_H

#include <cstdint>
#include <string>

#include <gst/gst.h>

/* True when a description names another place for each track, by "%u". */
bool gst_output_numbered(const std::string& description);

/* Makes the sink of a description, with `number` in the place of each "%u", and opens its device
 * (state READY). Returns a reference that the caller owns, to be set to the state NULL before it
 * is dropped; or null with the reason in *why. */
GstElement* gst_output_open(const std::string& description, uint32_t number, std::string* why);

/* True when the description asks to look for a device and a null sink was all there was. */
bool gst_output_found_nothing(GstElement* sink, const std::string& description);

/* Closes a sink and drops the reference; accepts null. */
void gst_output_close(GstElement* sink);

#endif
