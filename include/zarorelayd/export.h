/* Marks what the shared library exports; everything else stays hidden. */
#pragma once

#define ZARORELAYD_API __attribute__((visibility("default")))
