// A module built for the command line's tests only: two comparison classes whose outcome is
// fixed, so that `quorv unittest run` can be watched printing a failed case and a run that
// ends before any case, through the same runner and loader as the render module's classes.
#include "quorv/entity.h"
#include "quorv/unittest.h"

namespace quorv::testfixture {

namespace {

TranslationUnitRecord g_registrationUnit;

const bool g_module = [] {
    OpenTranslationUnit(g_registrationUnit, g_moduleRecord, __FILE__,
                        EntityBase::FLAGS::REGISTRATION_UNIT);
    DefineModule(g_moduleRecord, "net.quorv.test.unittestfixture", g_registrationUnit, 0);
    return true;
}();

void Report(const UnitTestSink& sink, const char* label, Bool passed, const char* message) {
    UnitTestReport r;
    r.label = label;
    r.passed = passed;
    r.message = message;
    sink(r);
}

// One case passes, the second fails and ends the run; the third is never reached.
struct FailingCaseImpl {
    Result<void> Run(const DataDictionary&, const UnitTestSink& sink) {
        Report(sink, "Fixture case 1", true, "");
        Report(sink, "Fixture case 2", false, "expected 1, got 2");
        return MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION,
                         "Fixture case 2: expected 1, got 2");
    }
};

// Ends with an error before any case is judged, as a class does when memory runs out.
struct BrokenRunImpl {
    Result<void> Run(const DataDictionary&, const UnitTestSink&) {
        return MakeError(ERRORKIND::ILLEGALSTATE, QUORV_SOURCE_LOCATION,
                         "Fixture could not start its cases");
    }
};

ModuleUnit g_unit(__FILE__);
SimpleClass<FailingCaseImpl, UnitTestInterface> g_failing(g_unit,
                                                          "net.quorv.unittest.fixture.failing",
                                                          UNITTEST_CLASS_REGISTRY_ID, __FILE__);
SimpleClass<BrokenRunImpl, UnitTestInterface> g_broken(g_unit, "net.quorv.unittest.fixture.broken",
                                                       UNITTEST_CLASS_REGISTRY_ID, __FILE__);

}  // namespace

}  // namespace quorv::testfixture
