// ns_record.cpp
