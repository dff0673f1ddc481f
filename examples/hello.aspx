<%@ Page Language="C#" %>
<!DOCTYPE html>
<html>
<head>
<title>Hello from ASP.NET</title>
</head>
<body>
<form id="main" runat="server">
<h1>Hello, <%= User.Identity.Name %>!</h1>
<p class="<%= IsAdmin ? "admin" : "visitor" %>">
  <asp:Label ID="Count" runat="server" Text="3 fruits" />
</p>
<asp:Repeater ID="Fruits" runat="server">
  <ItemTemplate><li><%# Eval("Name") %></li></ItemTemplate>
</asp:Repeater>
<asp:PlaceHolder ID="AdminTools" runat="server" Visible="false" />
</form>
</body>
</html>
