// Which kind of document a factory is for: the one place that knows the records and their twins.

#include "ParserBaseImpl.h"

#include "RegLog.h"
#include "Vorelkit/Vorelkit.h"
#include "XMLParserImpl.h"

CRegParserFactory* CRegParserFactoryObj::GetParserFactory(std::uint16_t nKind) {
  if (nKind != E_PARSER_XML) return nullptr;
  REG_LOG(E_LOG_INFO, "Tolvane:vktNew CXmlCRegFactory");
  return vktNew<CXmlCRegFactory>();
}
