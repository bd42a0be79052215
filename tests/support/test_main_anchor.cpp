// Keeps the support library non-empty whatever else it holds.
namespace quillon::testing {
int support_library_anchor = 0;
}
