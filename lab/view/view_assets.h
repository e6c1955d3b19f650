#pragma once

#include <string_view>

namespace sensorlay::lab {

// The design page as one self-contained HTML document: three.js and the
// page's own script and style are inlined, so the finished page opens from a
// file path with no network and can be mailed as it is.
//
// It is a template for exactly one piece of text: the placeholder returned by
// viewDataPlaceholder(), "@@SENSORLAY_DATA_JSON@@", which occurs exactly once,
// as the whole content of
//     <script type="application/json" id="sensorlay-data">@@SENSORLAY_DATA_JSON@@</script>
// Replace it by the design's data, one JSON object in UTF-8 (its keys are
// described in lab/view/DATA.md).
//
// The browser reads the element's text as it stands (no entities are decoded,
// so "&" stays as it is), but ends the element at the first "</script" and
// treats "<!--" specially. So before the JSON goes in, every "<" in it must be
// written as the JSON escape "\u003c". That covers "</" and "<!--" alike, and
// since "<" can only stand inside a JSON string, the data still parses to the
// same values. Nothing else needs escaping.
std::string_view viewPageTemplate();
std::string_view viewDataPlaceholder();

}  // namespace sensorlay::lab
