// Placeholder translation unit so that an empty static library stays valid.
namespace lanroster {
int empty_translation_unit_marker = 0;
}
