#include "scheduling/rules/CadenceCalendar.h"

#include <unicode/gregocal.h>
#include <unicode/timezone.h>

#include <memory>

namespace quillmark::CadenceCalendar {
namespace {

// Local times that the clock leaves out mean the next one it shows; those it shows twice mean the first.
std::unique_ptr<icu::GregorianCalendar> calendarAt(Date date, const std::string& timeZone) {
  UErrorCode status = U_ZERO_ERROR;
  auto calendar = std::make_unique<icu::GregorianCalendar>(
      icu::TimeZone::createTimeZone(icu::UnicodeString::fromUTF8(timeZone)), icu::Locale::getRoot(), status);
  if (U_FAILURE(status)) return nullptr;
  calendar->setFirstDayOfWeek(UCAL_MONDAY);
  calendar->setSkippedWallTimeOption(UCAL_WALLTIME_NEXT_VALID);
  calendar->setRepeatedWallTimeOption(UCAL_WALLTIME_FIRST);
  calendar->setTime(date.secondsSince1970() * 1000.0, status);
  if (U_FAILURE(status)) return nullptr;
  return calendar;
}

void startOfDay(icu::GregorianCalendar& calendar) {
  for (const UCalendarDateFields field : {UCAL_HOUR_OF_DAY, UCAL_MINUTE, UCAL_SECOND, UCAL_MILLISECOND}) {
    calendar.set(field, 0);
  }
}

// Back to a multiple of so many minutes in the hour, by the fields of the local time.
void startOfMinutes(icu::GregorianCalendar& calendar, int multiple, UErrorCode& status) {
  const int year = calendar.get(UCAL_EXTENDED_YEAR, status), month = calendar.get(UCAL_MONTH, status);
  const int day = calendar.get(UCAL_DATE, status), hour = calendar.get(UCAL_HOUR_OF_DAY, status);
  const int minute = calendar.get(UCAL_MINUTE, status);
  calendar.clear();
  calendar.set(UCAL_EXTENDED_YEAR, year);
  calendar.set(UCAL_MONTH, month);
  calendar.set(UCAL_DATE, day);
  calendar.set(UCAL_HOUR_OF_DAY, hour);
  calendar.set(UCAL_MINUTE, minute - minute % multiple);
}

Date dateOf(icu::GregorianCalendar& calendar, Date otherwise) {
  UErrorCode status = U_ZERO_ERROR;
  const UDate milliseconds = calendar.getTime(status);
  return U_FAILURE(status) ? otherwise : Date::from1970(milliseconds / 1000.0);
}

}  // namespace

Date occurrence(SnapshotCadence cadence, Date date, const std::string& timeZone) {
  const auto calendar = calendarAt(date, timeZone);
  if (!calendar) return date;
  UErrorCode status = U_ZERO_ERROR;
  switch (cadence) {
    case SnapshotCadence::freq: startOfMinutes(*calendar, 15, status); break;
    case SnapshotCadence::hourly: startOfMinutes(*calendar, 60, status); break;
    case SnapshotCadence::daily: startOfDay(*calendar); break;
    case SnapshotCadence::weekly: {
      const int weekday = calendar->get(UCAL_DAY_OF_WEEK, status);
      startOfDay(*calendar);
      calendar->add(UCAL_DATE, -((weekday + 5) % 7), status);
      startOfDay(*calendar);
      break;
    }
    case SnapshotCadence::monthly:
      calendar->set(UCAL_DATE, 1);
      startOfDay(*calendar);
      break;
  }
  if (U_FAILURE(status)) return date;
  return dateOf(*calendar, date);
}

Date next(SnapshotCadence cadence, Date date, const std::string& timeZone) {
  const Date start = occurrence(cadence, date, timeZone);
  const auto calendar = calendarAt(start, timeZone);
  if (!calendar) return date;
  UErrorCode status = U_ZERO_ERROR;
  switch (cadence) {
    case SnapshotCadence::freq: calendar->add(UCAL_MINUTE, 15, status); break;
    case SnapshotCadence::hourly: calendar->add(UCAL_HOUR_OF_DAY, 1, status); break;
    case SnapshotCadence::daily: calendar->add(UCAL_DATE, 1, status); break;
    case SnapshotCadence::weekly: calendar->add(UCAL_DATE, 7, status); break;
    case SnapshotCadence::monthly: calendar->add(UCAL_MONTH, 1, status); break;
  }
  if (U_FAILURE(status)) return date;
  return dateOf(*calendar, date);
}

}  // namespace quillmark::CadenceCalendar
